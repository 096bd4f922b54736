// SPDX-License-Identifier: Apache-2.0
#include "profile/Outside.h"

#include <algorithm>
#include <cstring>

#include "profile/Values.h"
#include "text/Excerpt.h"

namespace vpnoalctl {

using wfoal::Ipv4Network;
using wfoal::Ipv6Network;
using wfoal::JsonValue;

namespace {

constexpr char tooMuch[] = "would keep all traffic outside of the tunnel";

bool isIpv6(const JsonValue& value)
{
    return value.text().find(':') != std::string_view::npos;
}

Ipv6Network ipv6NetworkOf(const JsonValue& value)
{
    const Ipv6Network network = require(value, wfoal::parseIpv6Network(value.text()));
    const Ipv6Network base{network.base(), network.prefix};
    if (!(base == network)) {
        value.refuse(withPrefix(network) + " has bits set after its prefix; the network is " + withPrefix(base));
    }
    return network;
}

bool isBefore(const Ipv4Network& first, const Ipv4Network& second)
{
    const auto [one, other] = std::pair(first.address.number(), second.address.number());
    return one != other ? one < other : first.prefix < second.prefix;
}

bool isBefore(const Ipv6Network& first, const Ipv6Network& second)
{
    const int order = std::memcmp(&first.address, &second.address, sizeof first.address);
    return order != 0 ? order < 0 : first.prefix < second.prefix;
}

template <class Network>
std::vector<Network> mergedLists(std::vector<Network> first, const std::vector<Network>& second)
{
    first.insert(first.end(), second.begin(), second.end());
    std::sort(first.begin(), first.end(),
              [](const Network& one, const Network& other) { return isBefore(one, other); });
    first.erase(std::unique(first.begin(), first.end()), first.end());
    return first;
}

template <class Network>
void add(const JsonValue& value, std::vector<Network>& networks, const Network& network)
{
    if (network.prefix == 0) value.refuse(tooMuch);
    networks.push_back(network);
}

}  // namespace

void addServer(const JsonValue& value, BypassNetworks& outside)
{
    if (!isIpv6(value)) return outside.ipv4.push_back({hostAddressOf(value), 32});
    const auto address = wfoal::parseIpv6Address(value.text());
    if (!address) value.refuse(wfoal::excerpt(value.text()) + " is no IPv6 address");
    outside.ipv6.push_back({*address, 128});
}

void addBypass(const JsonValue& value, BypassNetworks& outside)
{
    if (isIpv6(value)) {
        add(value, outside.ipv6, ipv6NetworkOf(value));
    } else {
        add(value, outside.ipv4, networkOf(value));
    }
}

BypassNetworks merged(const BypassNetworks& first, const BypassNetworks& second)
{
    return {mergedLists(first.ipv4, second.ipv4), mergedLists(first.ipv6, second.ipv6)};
}

bool contains(const BypassNetworks& sorted, const Ipv4Network& network)
{
    return std::binary_search(sorted.ipv4.begin(), sorted.ipv4.end(), network,
                              [](const Ipv4Network& one, const Ipv4Network& other) { return isBefore(one, other); });
}

bool isEmpty(const BypassNetworks& outside)
{
    return outside.ipv4.empty() && outside.ipv6.empty();
}

std::vector<std::string> textsOf(const BypassNetworks& outside)
{
    std::vector<std::string> texts;
    for (const Ipv4Network& network : outside.ipv4)
        texts.push_back(withPrefix(network));
    for (const Ipv6Network& network : outside.ipv6)
        texts.push_back(withPrefix(network));
    return texts;
}

}  // namespace vpnoalctl
