// SPDX-License-Identifier: Apache-2.0
#include "config/TunnelPlan.h"

#include <fmt/format.h>

#include <algorithm>
#include <tuple>

namespace vpnoalwg {

namespace {

using wfoal::Ipv4Address;
using wfoal::Ipv4Network;

// A value of wg(8), unless there is none.
void addLine(std::string& text, const char* key, const std::string& value)
{
    if (!value.empty()) text += fmt::format("{} = {}\n", key, value);
}

std::string listOf(const MixedNetworks& networks)
{
    std::string list;
    const auto add = [&list](const std::string& network) { list += (list.empty() ? "" : ",") + network; };
    for (const auto& network : networks.ipv4)
        add(wfoal::withPrefix(network));
    for (const auto& network : networks.ipv6)
        add(wfoal::withPrefix(network));
    return list;
}

bool covers(const Ipv4Network& wide, const Ipv4Network& narrow)
{
    return wide.prefix <= narrow.prefix && wide.contains(narrow.address);
}

// Each network once. The kernel reaches those of the device's own addresses without a route.
std::vector<Ipv4Network> routedNetworks(const WgConfig& config)
{
    std::vector<Ipv4Network> networks;
    for (const WgPeer& peer : config.peers)
        networks.insert(networks.end(), peer.allowed.ipv4.begin(), peer.allowed.ipv4.end());
    const auto isConnected = [&config](const Ipv4Network& network) {
        const auto& own = config.addresses.ipv4;
        return std::any_of(own.begin(), own.end(),
                           [&](const Ipv4Network& address) { return covers(address, network); });
    };
    networks.erase(std::remove_if(networks.begin(), networks.end(), isConnected), networks.end());
    const auto before = [](const Ipv4Network& left, const Ipv4Network& right) {
        return std::make_tuple(left.address.number(), left.prefix) <
               std::make_tuple(right.address.number(), right.prefix);
    };
    std::sort(networks.begin(), networks.end(), before);
    networks.erase(std::unique(networks.begin(), networks.end()), networks.end());
    return networks;
}

bool takesAllIpv4(const WgConfig& config)
{
    if (config.table.kind != WgTable::Kind::Auto) return false;
    const auto networks = routedNetworks(config);
    const auto has = [&networks](const Ipv4Network& network) {
        return std::find(networks.begin(), networks.end(), network) != networks.end();
    };
    return has({{}, 0}) || (has({{}, 1}) && has({Ipv4Address::fromNumber(0x80000000), 1}));
}

bool asksForIpv6(const WgConfig& config)
{
    const auto allowsIpv6 = [](const WgPeer& peer) { return !peer.allowed.ipv6.empty(); };
    return !config.addresses.ipv6.empty() || !config.dnsServers.ipv6.empty() ||
           std::any_of(config.peers.begin(), config.peers.end(), allowsIpv6);
}

}  // namespace

std::optional<PeerAddress> numericAddress(const WgEndpoint& endpoint)
{
    if (const auto address = wfoal::parseDottedAddress(endpoint.host)) {
        return PeerAddress{*address, fmt::format("{}:{}", endpoint.host, endpoint.port)};
    }
    const auto address = wfoal::parseIpv6Address(std::string_view(endpoint.host).substr(0, endpoint.host.find('%')));
    if (!address) return std::nullopt;
    return PeerAddress{*address, fmt::format("[{}]:{}", endpoint.host, endpoint.port)};
}

wfoal::Check checkUsable(const WgConfig& config)
{
    if (!config.addresses.ipv4.empty()) return wfoal::passed();
    return wfoal::Fault{"[Interface] has no IPv4 address, which the tunnel needs: Address = ADDRESS/PREFIX"};
}

std::string wgPartOf(const WgConfig& config, const PeerAddresses& peers)
{
    std::string text = "[Interface]\n";
    addLine(text, "PrivateKey", config.privateKey);
    addLine(text, "ListenPort", config.listenPort);
    addLine(text, "FwMark", config.fwMark);
    for (std::size_t i = 0; i < config.peers.size(); ++i) {
        const WgPeer& peer = config.peers[i];
        text += "[Peer]\n";
        addLine(text, "PublicKey", peer.publicKey);
        addLine(text, "PresharedKey", peer.presharedKey);
        addLine(text, "AllowedIPs", listOf(peer.allowed));
        if (peers.at(i)) addLine(text, "Endpoint", peers[i]->text);
        addLine(text, "PersistentKeepalive", peer.keepalive);
    }
    return text;
}

vpnoalctl::Profile profileOf(const WgConfig& config)
{
    vpnoalctl::Profile profile;
    for (const Ipv4Network& server : config.dnsServers.ipv4)
        profile.dnsServers.push_back(wfoal::dotted(server.address));
    profile.dnsDomains = config.dnsDomains;
    if (config.table.kind != WgTable::Kind::Auto) return profile;
    for (const Ipv4Network& network : routedNetworks(config))
        profile.routes.push_back({network, {}, 0});
    return profile;
}

wfoal::BypassNetworks serversOf(const PeerAddresses& peers)
{
    const Ipv4Network loopback{Ipv4Address::fromNumber(0x7f000000), 8};
    wfoal::BypassNetworks servers;
    for (const auto& peer : peers) {
        if (!peer) continue;
        if (const auto* ipv4 = std::get_if<Ipv4Address>(&peer->address)) {
            if (!loopback.contains(*ipv4)) servers.ipv4.push_back({*ipv4, 32});
        } else if (const auto& ipv6 = std::get<in6_addr>(peer->address); !IN6_IS_ADDR_LOOPBACK(&ipv6)) {
            servers.ipv6.push_back({ipv6, 128});
        }
    }
    return servers;
}

std::vector<std::string> warningsFor(const WgConfig& config, bool hasIpv6Guard)
{
    std::vector<std::string> warnings;
    if (asksForIpv6(config)) {
        const bool isGuarded = takesAllIpv4(config) && hasIpv6Guard;
        warnings.push_back(std::string("the tunnel carries IPv4 alone, the IPv6 addresses of the file are left out; ") +
                           (isGuarded ? "the guard rejects IPv6 beside the tunnel" : "IPv6 goes beside the tunnel"));
    }
    if (config.saveConfig) warnings.emplace_back("SaveConfig is left out: the file stays as it is");
    return warnings;
}

std::string commandFor(const std::string& command, const std::string& device)
{
    std::string text = command;
    for (std::size_t at = 0; (at = text.find("%i", at)) != std::string::npos; at += device.size())
        text.replace(at, 2, device);
    return text;
}

}  // namespace vpnoalwg
