// SPDX-License-Identifier: Apache-2.0
#include "undolog/UndoLogFiles.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>

#include "handles/UniqueFd.h"
#include "io/WholeFile.h"

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

Result<Origin> currentOrigin()
{
    const Result<std::string> boot = readWhole("/proc/sys/kernel/random/boot_id", 64);
    if (!boot) return Fault{"boot id: " + boot.reason()};
    Origin origin{boot->substr(0, boot->find('\n')), currentNetworkNamespace(), {}};
    struct stat status {};
    if (origin.networkNamespace.empty() || stat("/proc/thread-self/ns/net", &status) != 0) {
        return Fault{std::string("network namespace: ") + std::strerror(errno)};
    }
    origin.namespaceInode = std::to_string(status.st_ino);
    return origin;
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
