// SPDX-License-Identifier: Apache-2.0
#include "undolog/UndoLogFiles.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>

#include "handles/UniqueFd.h"

namespace wfoal {

namespace {

std::string inodeOfNetworkNamespace()
{
    struct stat status {};
    return stat("/proc/thread-self/ns/net", &status) == 0 ? "i" + std::to_string(status.st_ino) : std::string();
}

}  // namespace

std::string currentNetworkNamespace()
{
    const UniqueFd any(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!any.valid()) return {};
    std::uint64_t cookie = 0;
    socklen_t size = sizeof cookie;
    if (getsockopt(any.get(), SOL_SOCKET, SO_NETNS_COOKIE, &cookie, &size) == 0) return "c" + std::to_string(cookie);
    return errno == ENOPROTOOPT ? inodeOfNetworkNamespace() : std::string();
}

pid_t holderIn(int lockFile)
{
    char text[16] = {};
    const ssize_t count = pread(lockFile, text, sizeof text, 0);
    pid_t holder = 0;
    if (count > 0) std::from_chars(text, text + count, holder);
    return holder;
}

}  // namespace wfoal
