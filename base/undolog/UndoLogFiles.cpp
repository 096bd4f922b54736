// SPDX-License-Identifier: Apache-2.0
#include "undolog/UndoLogFiles.h"

#include <asm/socket.h>  // SO_NETNS_COOKIE, which not every C library has
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <utility>

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

Result<Origin> currentOrigin(std::string boot)
{
    if (boot.empty()) {
        const Result<std::string> line = readWhole("/proc/sys/kernel/random/boot_id", 64);
        if (!line) return Fault{"boot id: " + line.reason()};
        boot = line->substr(0, line->find('\n'));
    }
    Origin origin{std::move(boot), currentNetworkNamespace(), {}};
    if (origin.networkNamespace.empty()) return Fault{std::string("network namespace: ") + std::strerror(errno)};
    return origin;
}

Result<Origin> withNamespaceInode(Origin origin)
{
    struct stat status {};
    if (stat("/proc/thread-self/ns/net", &status) != 0) {
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
