// SPDX-License-Identifier: Apache-2.0
#include "openvpn/OpenVpnTunnel.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <tuple>

#include "text/Excerpt.h"
#include "tunnel/TunDevice.h"

namespace vpnoalctl {

namespace {

using wfoal::Ipv4Address;
using wfoal::Ipv4Network;

void checkDevice(const ScriptVariables& variables)
{
    const auto device = variables.find("dev");
    const std::string_view type = variables.find("dev_type").value_or("tun");
    if (device == tunnelDeviceName && type == "tun") return;
    throw VariableError(
        device == tunnelDeviceName ? "dev_type" : "dev",
        fmt::format("the tunnel's device is {}, of type {}; write 'dev {}' and 'dev-type tun' into OpenVPN's "
                    "configuration",
                    wfoal::excerpt(device.value_or("")), wfoal::excerpt(type), tunnelDeviceName));
}

bool isHost(Ipv4Address address)
{
    const std::uint32_t first = address.number() >> 24;
    return first != 0 && first != 127 && first < 224;
}

std::optional<Ipv4Address> hostAddress(const ScriptVariables& variables, const std::string& name)
{
    const auto address = variables.address(name);
    if (address && !isHost(*address)) throw VariableError(name, dotted(*address) + " is no address of a host");
    return address;
}

std::optional<std::uint8_t> prefixOf(const ScriptVariables& variables, const std::string& name)
{
    const auto mask = variables.address(name);
    if (!mask) return std::nullopt;
    const auto prefix = wfoal::prefixLength(*mask);
    if (!prefix) throw VariableError(name, dotted(*mask) + " is no netmask: it has holes");
    return prefix;
}

void readAddresses(const ScriptVariables& variables, OpenVpnTunnel& tunnel)
{
    const auto local = hostAddress(variables, "ifconfig_local");
    if (!local) throw VariableError("ifconfig_local", "missing: the tunnel needs an IPv4 address");
    const auto prefix = prefixOf(variables, "ifconfig_netmask");
    tunnel.peer = hostAddress(variables, "ifconfig_remote");
    if (prefix && tunnel.peer) {
        throw VariableError("ifconfig_remote", "there is an ifconfig_netmask too; a tunnel has one of the two");
    }
    if (!prefix && !tunnel.peer) {
        throw VariableError("ifconfig_netmask", "missing, and so is ifconfig_remote; a tunnel has one of the two");
    }
    if (prefix && *prefix == 0) throw VariableError("ifconfig_netmask", "0.0.0.0 would cover every address");
    if (tunnel.peer == local) throw VariableError("ifconfig_remote", dotted(*local) + " is the tunnel's own address");
    tunnel.address = {*local, prefix.value_or(32)};
    tunnel.mtu = variables.wholeNumber("tun_mtu", 68, 65535);
}

// A gateway must be on the tunnel's network, or be the device's own gateway: then the route goes beside the tunnel.
void addRoute(const ScriptVariables& variables, unsigned int number, OpenVpnTunnel& tunnel)
{
    const std::string end = "_" + std::to_string(number);
    const auto network = variables.address("route_network" + end);
    if (!network) throw VariableError("route_network" + end, "missing");
    const auto prefix = prefixOf(variables, "route_netmask" + end);
    // OpenVPN accepts set bits after the mask, the kernel does not.
    const Ipv4Network destination{Ipv4Network{*network, prefix.value_or(32)}.base(), prefix.value_or(32)};
    const auto gateway = hostAddress(variables, "route_gateway" + end);
    const auto metric = variables.wholeNumber("route_metric" + end, 0, 0xffffffff);
    const bool isOwnGateway = gateway && gateway == variables.address("route_net_gateway") &&
                              gateway != variables.address("route_vpn_gateway");
    if (isOwnGateway) {
        constexpr std::uint8_t shortest = 8;
        if (destination.prefix < shortest) {
            throw VariableError("route_netmask" + end,
                                fmt::format("{} is too much to be sent beside the tunnel", withPrefix(destination)));
        }
        tunnel.bypass.push_back(withPrefix(destination));
        return;
    }
    const Ipv4Network reached{tunnel.peer.value_or(tunnel.address.address), tunnel.address.prefix};
    if (gateway && (gateway == tunnel.address.address || !reached.contains(*gateway))) {
        throw VariableError("route_gateway" + end,
                            fmt::format("{} is no other address of the tunnel's network {}, and not net_gateway",
                                        dotted(*gateway), wfoal::withPrefix({reached.base(), reached.prefix})));
    }
    tunnel.routes.push_back({destination, gateway, metric.value_or(0)});
}

void dropRepetitions(std::vector<OpenVpnRoute>& routes)
{
    const auto key = [](const OpenVpnRoute& route) {
        return std::make_tuple(route.destination.address.number(), route.destination.prefix, route.metric);
    };
    const auto precedes = [&key](const OpenVpnRoute& a, const OpenVpnRoute& b) { return key(a) < key(b); };
    const auto equals = [&key](const OpenVpnRoute& a, const OpenVpnRoute& b) { return key(a) == key(b); };
    std::stable_sort(routes.begin(), routes.end(), precedes);
    routes.erase(std::unique(routes.begin(), routes.end(), equals), routes.end());
}

bool hasRoute(const OpenVpnTunnel& tunnel, const Ipv4Network& destination)
{
    return std::any_of(tunnel.routes.begin(), tunnel.routes.end(),
                       [&destination](const OpenVpnRoute& route) { return route.destination == destination; });
}

// OpenVPN 2.6 sets redirect_gateway before --route-up, unless route-noexec is given. Newer ones have a variable of
// their own, which also says 2: the local network too.
void readTraffic(const ScriptVariables& variables, OpenVpnTunnel& tunnel)
{
    for (const char* name : {"route_redirect_gateway_ipv4", "redirect_gateway"}) {
        if (const auto value = variables.wholeNumber(name, 0, 2)) tunnel.allTraffic = *value != 0;
    }
    const Ipv4Network whole{{0}, 0};
    const Ipv4Network lower{{0}, 1};
    const Ipv4Network upper{Ipv4Address::fromNumber(0x80000000), 1};
    if (hasRoute(tunnel, whole) || (hasRoute(tunnel, lower) && hasRoute(tunnel, upper))) tunnel.allTraffic = true;
}

// An address as the profile has it: IPv6 in its usual form, an IPv4 address inside of IPv6 by itself. None for a name.
std::optional<std::string> addressText(std::string_view text)
{
    if (const auto address = wfoal::parseDottedAddress(text)) return dotted(*address);
    const std::string withoutZone(text.substr(0, text.find('%')));
    in6_addr address{};
    if (inet_pton(AF_INET6, withoutZone.c_str(), &address) != 1) return std::nullopt;
    if (IN6_IS_ADDR_V4MAPPED(&address)) {
        Ipv4Address inner;
        std::copy(address.s6_addr + 12, address.s6_addr + 16, reinterpret_cast<unsigned char*>(&inner.bits));
        return dotted(inner);
    }
    char shown[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, &address, shown, sizeof shown);
    return shown;
}

// The server that the connection is with; the others of the configuration may be next.
void readServers(const ScriptVariables& variables, OpenVpnTunnel& tunnel)
{
    for (const char* name : {"trusted_ip", "trusted_ip6"}) {
        const auto text = variables.find(name);
        if (!text) continue;
        tunnel.server = addressText(*text);
        if (!tunnel.server) throw VariableError(name, wfoal::excerpt(*text) + " is no address");
        break;
    }
    for (const unsigned int number : variables.numbersOf("remote_", mostDnsEntries)) {
        const auto remote = addressText(variables.valueOf("remote_" + std::to_string(number)));
        if (!remote || remote == tunnel.server) continue;
        tunnel.bypass.push_back(*remote + (remote->find(':') == std::string::npos ? "/32" : "/128"));
    }
}

void noteIpv6(const ScriptVariables& variables, OpenVpnTunnel& tunnel)
{
    if (variables.find("ifconfig_ipv6_local")) tunnel.notApplied.emplace_back("the tunnel's IPv6 address");
    const std::size_t routes = variables.numbersOf("route_ipv6_network_", mostRoutes).size();
    if (routes != 0) tunnel.notApplied.push_back(fmt::format("{} IPv6 route{}", routes, routes == 1 ? "" : "s"));
}

}  // namespace

OpenVpnTunnel readTunnel(const ScriptVariables& variables)
{
    OpenVpnTunnel tunnel;
    checkDevice(variables);
    readAddresses(variables, tunnel);
    for (const unsigned int number : variables.numbersOf("route_network_", mostRoutes))
        addRoute(variables, number, tunnel);
    dropRepetitions(tunnel.routes);
    readTraffic(variables, tunnel);
    readServers(variables, tunnel);
    std::sort(tunnel.bypass.begin(), tunnel.bypass.end());
    tunnel.bypass.erase(std::unique(tunnel.bypass.begin(), tunnel.bypass.end()), tunnel.bypass.end());
    noteIpv6(variables, tunnel);
    readDns(variables, tunnel);
    return tunnel;
}

}  // namespace vpnoalctl
