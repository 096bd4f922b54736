// SPDX-License-Identifier: Apache-2.0
#include "kernel/KernelRoutes.h"

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "CommandError.h"
#include "Decisions/RouteParser.h"
#include "handles/UniqueFd.h"
#include "net/Ipv4.h"

namespace vpnoalctl {

namespace {

constexpr char what[] = "reading the routing table";

CommandError failure()
{
    return systemError(what, errno, "run it again");
}

void request(int socket)
{
    struct {
        nlmsghdr header;
        rtmsg route;
    } message{};
    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = RTM_GETROUTE;
    message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message.route.rtm_family = AF_INET;
    if (send(socket, &message, sizeof message, 0) < 0) throw failure();
}

// False at the end of the dump.
bool takeDatagram(int socket, std::vector<RouteInfo>& routes)
{
    alignas(nlmsghdr) unsigned char buffer[32768];
    const ssize_t received = recv(socket, buffer, sizeof buffer, 0);
    if (received < 0) throw failure();
    for (wfoal::MessageWalk walk(buffer, static_cast<std::size_t>(received)); walk.valid(); walk.next()) {
        if (walk.header().nlmsg_type == NLMSG_DONE) return false;
        if (walk.header().nlmsg_type == NLMSG_ERROR) throw CommandError(what, "the kernel refuses", "run it again");
        if (walk.header().nlmsg_type != RTM_NEWROUTE) continue;
        RouteInfo route{};
        wfoal::parseRouteMessage(walk.message(), walk.header().nlmsg_len, route);
        routes.push_back(route);
    }
    return true;
}

}  // namespace

std::vector<RouteInfo> kernelRoutes()
{
    const UniqueFd socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!socket.valid()) throw failure();
    request(socket.get());
    std::vector<RouteInfo> routes;
    while (takeDatagram(socket.get(), routes)) {
    }
    return routes;
}

wfoal::InterfaceChoice chooseAmong(const std::vector<RouteInfo>& routes)
{
    std::vector<const RouteInfo*> pointers;
    pointers.reserve(routes.size());
    for (const RouteInfo& route : routes)
        pointers.push_back(&route);
    return wfoal::chooseInterface(pointers.data(), pointers.size(), interfaceName);
}

std::string interfaceName(std::uint32_t index)
{
    char name[IF_NAMESIZE];
    return if_indextoname(index, name) != nullptr ? name : noInterface;
}

std::string destinationText(const RouteInfo& route)
{
    if (route.isDefaultRoute()) return "default";
    const std::uint8_t prefix = wfoal::prefixLength({route.mask.s_addr}).value_or(32);
    return wfoal::withPrefix({{route.dst.s_addr}, prefix});
}

std::string addressText(in_addr address)
{
    return wfoal::dotted({address.s_addr});
}

}  // namespace vpnoalctl
