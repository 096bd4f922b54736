// SPDX-License-Identifier: Apache-2.0
#include "io/WholeFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "handles/UniqueFd.h"

namespace wfoal {

Fault systemFault()
{
    return {std::generic_category().message(errno)};
}

Result<std::string> readWhole(int file, std::size_t most)
{
    std::string bytes;
    char part[65536];
    while (bytes.size() < most) {
        const ssize_t count = ::read(file, part, std::min(sizeof part, most - bytes.size()));
        if (count == 0) break;
        if (count > 0) {
            bytes.append(part, static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            return systemFault();
        }
    }
    return bytes;
}

Result<std::string> readWhole(const std::string& path, std::size_t most)
{
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) return systemFault();
    return readWhole(file.get(), most);
}

Check writeWhole(int file, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = ::write(file, bytes.data(), bytes.size());
        if (count > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return systemFault();
        }
    }
    return passed();
}

}  // namespace wfoal
