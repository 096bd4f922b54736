// SPDX-License-Identifier: Apache-2.0
#include "guard/AgentConnections.h"

#include <dirent.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <tuple>

#include "RequestError.h"
#include "handles/Stdio.h"

namespace vknetconfig {

namespace {

std::optional<std::uint8_t> protocolOf(int socket)
{
    int protocol = 0;
    socklen_t length = sizeof protocol;
    if (getsockopt(socket, SOL_SOCKET, SO_PROTOCOL, &protocol, &length) != 0) return std::nullopt;
    if (protocol != IPPROTO_TCP && protocol != IPPROTO_UDP) return std::nullopt;
    return static_cast<std::uint8_t>(protocol);
}

void addIpv4(GuardRules& rules, std::uint8_t protocol, in_port_t port, in_addr_t address)
{
    rules.ipv4Connections.push_back({protocol, ntohs(port), {{address}, 32}});
}

void addConnection(GuardRules& rules, int socket)
{
    sockaddr_storage far{};
    socklen_t length = sizeof far;
    if (getpeername(socket, reinterpret_cast<sockaddr*>(&far), &length) != 0) return;
    if (far.ss_family != AF_INET && far.ss_family != AF_INET6) return;
    const std::optional<std::uint8_t> protocol = protocolOf(socket);
    if (!protocol) return;
    if (far.ss_family == AF_INET) {
        const auto& address = reinterpret_cast<const sockaddr_in&>(far);
        return addIpv4(rules, *protocol, address.sin_port, address.sin_addr.s_addr);
    }
    const auto& address = reinterpret_cast<const sockaddr_in6&>(far);
    if (IN6_IS_ADDR_V4MAPPED(&address.sin6_addr)) {
        in_addr_t bits = 0;
        std::memcpy(&bits, address.sin6_addr.s6_addr + 12, sizeof bits);
        return addIpv4(rules, *protocol, address.sin6_port, bits);
    }
    rules.ipv6Connections.push_back({*protocol, ntohs(address.sin6_port), {address.sin6_addr, 128}});
}

// The entry of the undo log is the same for the same connections.
template <class Connections>
void sortOnce(Connections& connections)
{
    std::sort(connections.begin(), connections.end(), [](const auto& left, const auto& right) {
        const int order = std::memcmp(&left.address.address, &right.address.address, sizeof left.address.address);
        return std::make_tuple(order, left.protocol, left.port) < std::make_tuple(0, right.protocol, right.port);
    });
    connections.erase(std::unique(connections.begin(), connections.end()), connections.end());
}

}  // namespace

void addAgentConnections(GuardRules& rules)
{
    constexpr char path[] = "/proc/self/fd";
    const DirPtr folder(opendir(path));
    if (!folder) throw systemError("guard", path, errno);
    while (const dirent* const entry = readdir(folder.get())) {
        int socket = -1;
        const char* const end = entry->d_name + std::strlen(entry->d_name);
        if (std::from_chars(entry->d_name, end, socket).ptr == end) addConnection(rules, socket);
    }
    sortOnce(rules.ipv4Connections);
    sortOnce(rules.ipv6Connections);
}

}  // namespace vknetconfig
