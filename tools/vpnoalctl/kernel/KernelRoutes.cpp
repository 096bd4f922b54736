// SPDX-License-Identifier: Apache-2.0
#include "kernel/KernelRoutes.h"

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstring>

#include "CommandError.h"
#include "Decisions/RouteParser.h"
#include "net/Ipv4.h"
#include "netlink/NetlinkDump.h"
#include "undolog/InterfaceValues.h"

namespace vpnoalctl {

namespace {

struct FoundRoute {
    RouteInfo route;
    bool isPlatforms;
};

bool isPlatforms(const nlmsghdr& message)
{
    rtmsg header{};
    if (message.nlmsg_len < NLMSG_LENGTH(sizeof header)) return false;
    std::memcpy(&header, reinterpret_cast<const unsigned char*>(&message) + NLMSG_HDRLEN, sizeof header);
    return header.rtm_protocol == wfoal::platformProtocol;
}

std::vector<FoundRoute> readRoutes()
{
    std::vector<FoundRoute> routes;
    const int error = wfoal::dumpTables(
        {{RTM_GETROUTE, AF_INET}}, [&] { routes.clear(); },
        [&](const nlmsghdr& message) {
            if (message.nlmsg_type != RTM_NEWROUTE) return;
            RouteInfo route{};
            wfoal::parseRouteMessage(&message, message.nlmsg_len, route);
            routes.push_back({route, isPlatforms(message)});
        });
    if (error != 0) throw systemError("reading the routing table", error, "run it again");
    return routes;
}

}  // namespace

std::vector<RouteInfo> kernelRoutes()
{
    std::vector<RouteInfo> routes;
    for (const FoundRoute& found : readRoutes())
        routes.push_back(found.route);
    return routes;
}

RoutesByOrigin kernelRoutesByOrigin()
{
    RoutesByOrigin routes;
    for (const FoundRoute& found : readRoutes())
        (found.isPlatforms ? routes.platforms : routes.others).push_back(found.route);
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
