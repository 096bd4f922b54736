// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "Json.h"
#include "openvpn/OpenVpnTunnel.h"

namespace vpnoalctl {

namespace {

JsonPtr textsOf(const std::vector<std::string>& texts)
{
    JsonPtr array = newArray();
    for (const std::string& text : texts)
        appendText(array, text);
    return array;
}

JsonPtr tunnelOf(const OpenVpnTunnel& tunnel)
{
    JsonPtr object = newObject();
    addText(object, "address", withPrefix(tunnel.address));
    if (tunnel.peer) addText(object, "peer", dotted(*tunnel.peer));
    if (tunnel.mtu) addNumber(object, "mtu", *tunnel.mtu);
    return object;
}

JsonPtr routeOf(const OpenVpnRoute& route)
{
    JsonPtr object = newObject();
    addText(object, "destination", route.destination.prefix == 0 ? "default" : withPrefix(route.destination));
    if (route.gateway) addText(object, "gateway", dotted(*route.gateway));
    if (route.metric != 0) addNumber(object, "metric", route.metric);
    return object;
}

JsonPtr routesOf(const OpenVpnTunnel& tunnel)
{
    JsonPtr routes = newArray();
    for (const OpenVpnRoute& route : tunnel.routes)
        append(routes, routeOf(route));
    const bool hasDefault = std::any_of(tunnel.routes.begin(), tunnel.routes.end(),
                                        [](const OpenVpnRoute& route) { return route.destination.prefix == 0; });
    if (tunnel.allTraffic.value_or(false) && !hasDefault) append(routes, routeOf({{{0}, 0}, std::nullopt, 0}));
    return routes;
}

}  // namespace

std::string profileText(const OpenVpnTunnel& tunnel)
{
    const JsonPtr profile = newObject();
    addChild(profile, "tunnel", tunnelOf(tunnel));
    if (!tunnel.dnsServers.empty() || !tunnel.dnsDomains.empty()) {
        JsonPtr dns = newObject();
        if (!tunnel.dnsServers.empty()) addChild(dns, "servers", textsOf(tunnel.dnsServers));
        if (!tunnel.dnsDomains.empty()) addChild(dns, "domains", textsOf(tunnel.dnsDomains));
        addChild(profile, "dns", std::move(dns));
    }
    if (JsonPtr routes = routesOf(tunnel); json_object_array_length(routes.get()) != 0) {
        addChild(profile, "routes", std::move(routes));
    }
    if (!tunnel.bypass.empty()) addChild(profile, "bypass", textsOf(tunnel.bypass));
    if (tunnel.server) addText(profile, "server", *tunnel.server);
    return toText(profile);
}

}  // namespace vpnoalctl
