// SPDX-License-Identifier: Apache-2.0
#include "profile/Values.h"

#include "text/Excerpt.h"

namespace vpnoalctl {

using wfoal::Ipv4Address;
using wfoal::Ipv4Network;
using wfoal::JsonValue;

namespace {

Ipv4Address addressOf(const JsonValue& value)
{
    const auto address = wfoal::parseDottedAddress(value.text());
    if (!address) value.refuse(wfoal::excerpt(value.text()) + " is no IPv4 address");
    return *address;
}

}  // namespace

void requireHost(const JsonValue& value, Ipv4Address address)
{
    const std::uint32_t first = address.number() >> 24;
    if (first == 0 || first == 127 || first >= 224) value.refuse(dotted(address) + " is no address of a host");
}

Ipv4Address hostAddressOf(const JsonValue& value)
{
    const Ipv4Address address = addressOf(value);
    requireHost(value, address);
    return address;
}

Ipv4Network networkOf(const JsonValue& value)
{
    const Ipv4Network network = require(value, wfoal::parseNetwork(value.text()));
    const Ipv4Network base{network.base(), network.prefix};
    if (base != network) {
        value.refuse(withPrefix(network) + " has bits set after its prefix; the network is " + withPrefix(base));
    }
    return network;
}

std::uint16_t portOf(const JsonValue& value)
{
    return static_cast<std::uint16_t>(value.wholeNumber(1, 65535));
}

}  // namespace vpnoalctl
