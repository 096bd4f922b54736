// SPDX-License-Identifier: Apache-2.0
#include "OuterSocket.h"

#include <fmt/format.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>

#include "CommandError.h"
#include "kernel/KernelRoutes.h"

namespace vpnoalctl {

std::string preferredInterface(KEST_SocketPlugin& sockets)
{
    char name[IF_NAMESIZE] = {};
    unsigned int size = sizeof name;
    if (sockets.GetPreferredInterface(size, name, nullptr) != PLUGIN_SUCCESS) {
        throw CommandError("preferred", "the plug-in does not answer", "run it again with -v to see the log");
    }
    return name;
}

UniqueFd boundSocket(KEST_SocketPlugin& sockets, const std::string& what)
{
    UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.valid()) throw systemError(what, errno, "");
    if (sockets.BindToInterface(nullptr, static_cast<unsigned>(socket.get())) != PLUGIN_SUCCESS) {
        throw CommandError(what, "the plug-in could not bind the socket",
                           "'vpnoalctl preferred --explain' shows the choice; run it again with -v to see the log");
    }
    return socket;
}

std::string deviceOf(int socket)
{
    char name[IF_NAMESIZE] = {};
    socklen_t length = sizeof name;
    getsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, name, &length);
    return name;
}

std::string endpointText(const sockaddr_in& address)
{
    return fmt::format("{}:{}", addressText(address.sin_addr), ntohs(address.sin_port));
}

std::string localEndOf(int socket)
{
    sockaddr_in local{};
    socklen_t length = sizeof local;
    getsockname(socket, reinterpret_cast<sockaddr*>(&local), &length);
    return endpointText(local);
}

int beginConnection(int socket, const sockaddr_in& address)
{
    return connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
}

int connectionResult(int socket)
{
    int error = 0;
    socklen_t length = sizeof error;
    return getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
}

}  // namespace vpnoalctl
