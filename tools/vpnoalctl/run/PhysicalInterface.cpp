// SPDX-License-Identifier: Apache-2.0
#include "run/PhysicalInterface.h"

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstring>

#include "OuterSocket.h"
#include "kernel/KernelRoutes.h"
#include "tunnel/TunDevice.h"

namespace vpnoalctl {

using wfoal::Ipv4Address;
using wfoal::Ipv4Network;

namespace {

const RouteInfo* defaultRoute(const std::vector<RouteInfo>& routes, unsigned int index)
{
    const RouteInfo* best = nullptr;
    for (const RouteInfo& route : routes) {
        if (!route.isDefaultRoute() || route.oifIndex != index) continue;
        if (best == nullptr || route.priority < best->priority) best = &route;
    }
    return best;
}

std::string kernelsInterface(const std::vector<RouteInfo>& routes)
{
    const unsigned int tunnel = if_nametoindex(tunnelDeviceName);
    const RouteInfo* best = nullptr;
    for (const RouteInfo& route : routes) {
        if (!route.isDefaultRoute() || route.table != RT_TABLE_MAIN) continue;
        if (route.oifIndex == 0 || route.oifIndex == tunnel) continue;
        if (best == nullptr || route.priority < best->priority) best = &route;
    }
    const std::string name = best != nullptr ? interfaceName(best->oifIndex) : noInterface;
    return name != noInterface ? name : std::string();
}

Ipv4Address addressOf(const std::string& name)
{
    const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    if (ioctl(socket.get(), SIOCGIFADDR, &request) != 0) return {};
    sockaddr_in value{};
    std::memcpy(&value, &request.ifr_addr, sizeof value);
    return {value.sin_addr.s_addr};
}

Ipv4Network networkOf(const RouteInfo& route)
{
    return {{route.dst.s_addr}, wfoal::prefixLength({route.mask.s_addr}).value_or(32)};
}

}  // namespace

PhysicalInterface PhysicalChoice::choose(const std::vector<RouteInfo>& routes)
{
    PhysicalInterface chosen;
    chosen.name = preferredInterface(mSockets);
    if (chosen.name.empty()) chosen.name = kernelsInterface(routes);
    chosen.index = if_nametoindex(chosen.name.c_str());
    if (chosen.index == 0) chosen = {};
    if (const RouteInfo* route = defaultRoute(routes, chosen.index)) {
        chosen.address = addressOf(chosen.name);
        chosen.gateway = {route->gateway.s_addr};
    } else {
        chosen = {};  // the route went meanwhile
    }
    if (chosen != mBound) bindTo(chosen);
    return chosen;
}

// A failure is no obstacle: the plug-in then reports changes as to an agent that has bound nothing.
void PhysicalChoice::bindTo(const PhysicalInterface& chosen)
{
    mSocket.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    mSockets.BindToInterface("", static_cast<unsigned>(mSocket.get()));
    mBound = chosen;
}

Ipv4Address gatewayTo(const Ipv4Network& network, const PhysicalInterface& through,
                      const std::vector<RouteInfo>& routes)
{
    const RouteInfo* best = nullptr;
    for (const RouteInfo& route : routes) {
        if (route.oifIndex != through.index || route.table == RT_TABLE_LOCAL) continue;
        const Ipv4Network destination = networkOf(route);
        if (destination.prefix > network.prefix || !destination.contains(network.address)) continue;
        const bool isBetter = best == nullptr || destination.prefix > networkOf(*best).prefix ||
                              (destination.prefix == networkOf(*best).prefix && route.priority < best->priority);
        if (isBetter) best = &route;
    }
    return best != nullptr ? Ipv4Address{best->gateway.s_addr} : through.gateway;
}

}  // namespace vpnoalctl
