// SPDX-License-Identifier: Apache-2.0
//
// The keys of a profile as tables, then the checks that need more than one key.
#include "profile/Profile.h"

#include <fmt/format.h>

#include <algorithm>
#include <tuple>

#include "CommandError.h"
#include "json/JsonError.h"
#include "profile/ProfileFile.h"
#include "profile/Values.h"
#include "text/Excerpt.h"
#include "text/Names.h"

namespace vpnoalctl {

namespace {

using wfoal::excerpt;
using wfoal::Ipv4Network;
using wfoal::JsonError;
using wfoal::JsonField;
using wfoal::JsonValue;

// A word that a key may have, and its meaning.
template <class Meaning>
struct Word {
    const char* word;
    Meaning meaning;
};

template <class Meaning, std::size_t count>
Meaning wordOf(const JsonValue& value, const Word<Meaning> (&words)[count])
{
    std::string known;
    for (const auto& word : words) {
        if (value.text() == word.word) return word.meaning;
        known += (known.empty() ? "" : ", ") + excerpt(word.word);
    }
    value.refuse(excerpt(value.text()) + " is none of " + known);
}

constexpr Word<KEST_FilterAction> actions[] = {{"accept", FILTER_ACTION_ACCEPT}, {"drop", FILTER_ACTION_DROP}};
constexpr Word<KEST_FilterApplyDirection> directions[] = {
    {"in", FILTER_DIRECTION_IN}, {"out", FILTER_DIRECTION_OUT}, {"any", FILTER_DIRECTION_BOTH}};
constexpr Word<KEST_FilterProtocol> protocols[] = {{"any", FILTER_PROTOCOL_ANY},
                                                   {"icmp", FILTER_PROTOCOL_ICMP},
                                                   {"tcp", FILTER_PROTOCOL_TCP},
                                                   {"udp", FILTER_PROTOCOL_UDP}};

constexpr JsonField<TunnelSettings> tunnelKeys[] = {
    {"address", true,
     [](const JsonValue& value, TunnelSettings& tunnel) {
         tunnel.address = require(value, wfoal::parseNetwork(value.text()));
         requireHost(value, tunnel.address.address);
     }},
    {"peer", false, [](const JsonValue& value, TunnelSettings& tunnel) { tunnel.peer = hostAddressOf(value); }},
    {"mtu", false,
     [](const JsonValue& value, TunnelSettings& tunnel) {
         tunnel.mtu = static_cast<unsigned int>(value.wholeNumber(68, 65535));
     }},
};

// A gateway of 0.0.0.0 stands for none. The peer, if there is one, is then used.
constexpr JsonField<ProfileRoute> routeKeys[] = {
    {"destination", true,
     [](const JsonValue& value, ProfileRoute& route) {
         route.destination = value.text() == "default" ? Ipv4Network{{0}, 0} : networkOf(value);
     }},
    {"gateway", false, [](const JsonValue& value, ProfileRoute& route) { route.gateway = hostAddressOf(value); }},
    {"metric", false,
     [](const JsonValue& value, ProfileRoute& route) {
         route.metric = static_cast<std::uint32_t>(value.wholeNumber(0, 0xffffffffLL));
     }},
};

constexpr JsonField<FilterRule> ruleKeys[] = {
    {"action", true, [](const JsonValue& value, FilterRule& rule) { rule.action = wordOf(value, actions); }},
    {"direction", false, [](const JsonValue& value, FilterRule& rule) { rule.direction = wordOf(value, directions); }},
    {"interface", false,
     [](const JsonValue& value, FilterRule& rule) {
         rule.interface = value.text();
         require(value, wfoal::checkInterfaceName(rule.interface));
     }},
    {"protocol", false, [](const JsonValue& value, FilterRule& rule) { rule.protocol = wordOf(value, protocols); }},
    {"source", false, [](const JsonValue& value, FilterRule& rule) { rule.source.network = networkOf(value); }},
    {"sourcePort", false, [](const JsonValue& value, FilterRule& rule) { rule.source.port = portOf(value); }},
    {"destination", false,
     [](const JsonValue& value, FilterRule& rule) { rule.destination.network = networkOf(value); }},
    {"destinationPort", false, [](const JsonValue& value, FilterRule& rule) { rule.destination.port = portOf(value); }},
};

constexpr JsonField<Profile> dnsKeys[] = {
    {"servers", false,
     [](const JsonValue& value, Profile& profile) {
         value.forEach([&](const JsonValue& server, std::size_t) {
             profile.dnsServers.push_back(dotted(hostAddressOf(server)));
         });
     }},
    {"domains", false,
     [](const JsonValue& value, Profile& profile) {
         value.forEach([&](const JsonValue& domain, std::size_t) {
             profile.dnsDomains.emplace_back(domain.text());
             require(domain, wfoal::checkDomainName(profile.dnsDomains.back()));
         });
     }},
};

template <class Record, std::size_t count>
void readList(const JsonValue& value, const JsonField<Record> (&keys)[count], std::vector<Record>& records)
{
    value.forEach([&](const JsonValue& element, std::size_t) {
        records.emplace_back();
        element.readObject(keys, records.back());
    });
}

constexpr JsonField<Profile> profileKeys[] = {
    {"tunnel", false,
     [](const JsonValue& value, Profile& profile) { value.readObject(tunnelKeys, profile.tunnel.emplace()); }},
    {"dns", false, [](const JsonValue& value, Profile& profile) { value.readObject(dnsKeys, profile); }},
    {"routes", false, [](const JsonValue& value, Profile& profile) { readList(value, routeKeys, profile.routes); }},
    {"filter", false, [](const JsonValue& value, Profile& profile) { readList(value, ruleKeys, profile.filter); }},
    {"server", false, [](const JsonValue& value, Profile& profile) { addServer(value, profile.outside); }},
    {"bypass", false,
     [](const JsonValue& value, Profile& profile) {
         value.forEach([&](const JsonValue& network, std::size_t) { addBypass(network, profile.outside); });
     }},
};

void checkTunnel(const TunnelSettings& tunnel)
{
    if (tunnel.peer == tunnel.address.address) {
        throw JsonError("tunnel.peer", dotted(*tunnel.peer) + " is the tunnel's own address");
    }
    if (tunnel.address.prefix == 0) throw JsonError("tunnel.address", "a prefix of 0 would cover every address");
}

void completeRoute(ProfileRoute& route, std::size_t index, const TunnelSettings& tunnel)
{
    if (route.gateway.bits == 0) route.gateway = tunnel.peer.value_or(wfoal::Ipv4Address{});
    if (route.gateway.bits == 0) return;
    const std::string key = fmt::format("routes[{}].gateway", index);
    if (route.gateway == tunnel.address.address) {
        throw JsonError(key, dotted(route.gateway) + " is the tunnel's own address");
    }
    if (!tunnel.network().contains(route.gateway)) {
        throw JsonError(
            key, fmt::format("{} cannot be reached through the tunnel, whose network is {}", dotted(route.gateway),
                             wfoal::withPrefix({tunnel.network().base(), tunnel.address.prefix})));
    }
}

void checkRoutesDiffer(const std::vector<ProfileRoute>& routes)
{
    using Identity = std::tuple<std::uint32_t, std::uint8_t, std::uint32_t, std::size_t>;
    std::vector<Identity> identities;
    for (std::size_t i = 0; i < routes.size(); ++i) {
        const Ipv4Network& destination = routes[i].destination;
        identities.emplace_back(destination.address.number(), destination.prefix, routes[i].metric, i);
    }
    std::sort(identities.begin(), identities.end());
    for (std::size_t i = 1; i < identities.size(); ++i) {
        const auto& [address, prefix, metric, index] = identities[i];
        const auto& [otherAddress, otherPrefix, otherMetric, otherIndex] = identities[i - 1];
        if (std::tie(address, prefix, metric) != std::tie(otherAddress, otherPrefix, otherMetric)) continue;
        throw JsonError(fmt::format("routes[{}]", index),
                        fmt::format("goes where routes[{}] goes already, with the same metric", otherIndex));
    }
}

// A network is either outside or in the tunnel. One that is a part of the other is no contradiction.
void checkOutside(const Profile& profile)
{
    for (std::size_t i = 0; i < profile.routes.size(); ++i) {
        const Ipv4Network& destination = profile.routes[i].destination;
        if (!contains(profile.outside, destination)) continue;
        throw JsonError(fmt::format("routes[{}]", i),
                        withPrefix(destination) + " stays outside of the tunnel, by \"server\" or \"bypass\"");
    }
}

void checkRule(const FilterRule& rule, std::size_t index)
{
    const auto refuse = [index](const char* key, const char* reason) {
        throw JsonError(fmt::format("filter[{}].{}", index, key), reason);
    };
    const bool isBound = rule.direction != FILTER_DIRECTION_BOTH;
    if (isBound && rule.interface.empty()) refuse("direction", "\"in\" and \"out\" need an interface");
    if (!isBound && !rule.interface.empty()) refuse("interface", "needs the direction \"in\" or \"out\"");
    if (rule.protocol != FILTER_PROTOCOL_ICMP) return;
    if (rule.source.port != 0) refuse("sourcePort", "the protocol \"icmp\" has no ports");
    if (rule.destination.port != 0) refuse("destinationPort", "the protocol \"icmp\" has no ports");
}

void completeRoutes(Profile& profile)
{
    for (std::size_t i = 0; i < profile.routes.size(); ++i)
        completeRoute(profile.routes[i], i, *profile.tunnel);
}

void completeAndCheck(Profile& profile)
{
    if (profile.tunnel) {
        checkTunnel(*profile.tunnel);
        completeRoutes(profile);
    }
    checkRoutesDiffer(profile.routes);
    profile.outside = merged(profile.outside, {});
    checkOutside(profile);
    for (std::size_t i = 0; i < profile.filter.size(); ++i)
        checkRule(profile.filter[i], i);
}

}  // namespace

Profile readProfile(const JsonValue& value)
{
    Profile profile;
    value.readObject(profileKeys, profile);
    completeAndCheck(profile);
    return profile;
}

Profile parseProfile(const std::string& text, const std::string& file)
{
    Profile profile;
    readJson(text, {file, "the profile"}, [&profile](const JsonValue& root) { profile = readProfile(root); });
    return profile;
}

Profile loadProfile(const std::string& file)
{
    const std::string path = profilePath(file);
    return parseProfile(readJsonFile(path), path);
}

const TunnelSettings& tunnelToMake(const Profile& profile, const std::string& file)
{
    if (profile.tunnel) return *profile.tunnel;
    throw badInput(file, "tunnel: missing", "the device that is made needs an address; nothing was changed");
}

Profile completedFor(const TunnelSettings& device, Profile profile)
{
    profile.tunnel = device;
    try {
        completeRoutes(profile);
    } catch (const JsonError& error) {
        throw badInput("the profile", error.what(), "correct the profile; nothing was changed").withKey(error.key());
    }
    return profile;
}

}  // namespace vpnoalctl
