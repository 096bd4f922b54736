// SPDX-License-Identifier: Apache-2.0
#include "net/Ipv4.h"

#include <charconv>

#include "net/DottedAddress.h"
#include "net/PrefixLength.h"
#include "text/Excerpt.h"

namespace wfoal {

namespace {

Result<std::uint8_t> parseMask(std::string_view text)
{
    if (const auto prefix = parsePrefixLength(text, 32)) return *prefix;
    const auto mask = parseDottedAddress(text);
    if (!mask) return Fault{excerpt(text) + " is neither a prefix length from 0 to 32 nor a netmask"};
    const auto prefix = prefixLength(*mask);
    if (!prefix) return Fault{"netmask " + excerpt(text) + " has holes"};
    return *prefix;
}

}  // namespace

Ipv4Address Ipv4Network::mask() const
{
    return netmaskOf(prefix);
}

Ipv4Address Ipv4Network::base() const
{
    return {address.bits & mask().bits};
}

bool Ipv4Network::contains(Ipv4Address other) const
{
    return (other.bits & mask().bits) == base().bits;
}

std::optional<Ipv4Address> parseDottedAddress(std::string_view text)
{
    const char* at = text.data();
    const char* const end = at + text.size();
    std::uint32_t value = 0;
    for (int part = 0; part < 4; ++part) {
        if (part > 0 && (at == end || *at++ != '.')) return std::nullopt;
        const char* const begin = at;
        unsigned number = 0;
        for (; at != end && *at >= '0' && *at <= '9' && at - begin < 3; ++at)
            number = 10 * number + static_cast<unsigned>(*at - '0');
        if (at == begin || number > 255 || (*begin == '0' && at - begin > 1)) return std::nullopt;
        value = value << 8 | number;
    }
    if (at != end) return std::nullopt;
    return Ipv4Address::fromNumber(value);
}

std::optional<Ipv4Address> parseHexAddress(std::string_view text)
{
    if (text.size() != 10 || text.substr(0, 2) != "0x") return std::nullopt;
    Ipv4Address address;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data() + 2, end, address.bits, 16);
    if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
    return address;
}

std::optional<std::uint8_t> prefixLength(Ipv4Address netmask)
{
    const std::uint32_t hostBits = ~netmask.number();
    if ((hostBits & (hostBits + 1)) != 0) return std::nullopt;
    return static_cast<std::uint8_t>(hostBits == 0 ? 32 : __builtin_clz(hostBits));
}

Ipv4Address netmaskOf(std::uint8_t prefix)
{
    return Ipv4Address::fromNumber(prefix == 0 ? 0 : ~std::uint32_t{0} << (32 - prefix));
}

Result<Ipv4Network> parseNetwork(std::string_view text)
{
    const std::size_t slash = text.find('/');
    const std::string_view first = text.substr(0, slash);
    const auto address = parseDottedAddress(first);
    if (!address) return Fault{excerpt(first) + " is no IPv4 address"};
    if (slash == std::string_view::npos) return Ipv4Network{*address, 32};
    const auto prefix = parseMask(text.substr(slash + 1));
    if (!prefix) return Fault{prefix.reason()};
    return Ipv4Network{*address, *prefix};
}

std::string dotted(Ipv4Address address)
{
    return DottedAddress(in_addr{address.bits}).text();
}

std::string withPrefix(const Ipv4Network& network)
{
    return dotted(network.address) + "/" + std::to_string(network.prefix);
}

}  // namespace wfoal
