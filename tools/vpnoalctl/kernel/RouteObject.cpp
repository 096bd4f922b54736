// SPDX-License-Identifier: Apache-2.0
#include "kernel/RouteObject.h"

#include "Json.h"

namespace vpnoalctl {

std::string routeTarget(const wfoal::Ipv4Network& network)
{
    constexpr std::uint8_t host = 32;
    if (network.prefix == 0 && network.address.bits == 0) return "default";
    return network.prefix == host ? dotted(network.address) : withPrefix(network);
}

JsonPtr routeObject(const wfoal::Ipv4Network& target, wfoal::Ipv4Address gateway, const std::string& device,
                    std::uint32_t metric)
{
    JsonPtr route = newObject();
    addText(route, "dst", routeTarget(target));
    if (gateway.bits != 0) addText(route, "gateway", dotted(gateway));
    if (!device.empty()) addText(route, "dev", device);
    if (metric != 0) addNumber(route, "metric", metric);
    return route;
}

}  // namespace vpnoalctl
