// SPDX-License-Identifier: Apache-2.0
#include "profile/Ipv4.h"

#include <arpa/inet.h>

#include <charconv>

#include "text/Excerpt.h"

namespace vpnoalctl {

namespace {

std::optional<int> parsePrefixLength(const std::string& text)
{
    int prefix = -1;
    const char* const end = text.data() + text.size();
    const auto [after, error] = std::from_chars(text.data(), end, prefix);
    if (error != std::errc() || after != end || prefix < 0 || prefix > 32) return std::nullopt;
    return prefix;
}

}  // namespace

Ipv4Address Ipv4Network::mask() const
{
    return {prefix == 0 ? 0 : ~std::uint32_t{0} << (32 - prefix)};
}

Ipv4Address Ipv4Network::base() const
{
    return {address.bits & mask().bits};
}

bool Ipv4Network::contains(Ipv4Address other) const
{
    return (other.bits & mask().bits) == base().bits;
}

std::string dotted(Ipv4Address address)
{
    const in_addr raw{htonl(address.bits)};
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &raw, text, sizeof text);
    return text;
}

std::string withPrefix(const Ipv4Network& network)
{
    return dotted(network.address) + "/" + std::to_string(network.prefix);
}

std::optional<Ipv4Address> parseAddress(const std::string& text)
{
    in_addr raw{};
    // The C library stops at a NUL character, the text may go on.
    if (text.find('\0') != std::string::npos || inet_pton(AF_INET, text.c_str(), &raw) != 1) return std::nullopt;
    return Ipv4Address{ntohl(raw.s_addr)};
}

std::optional<int> prefixOf(Ipv4Address mask)
{
    const std::uint32_t hostBits = ~mask.bits;
    if ((hostBits & (hostBits + 1)) != 0) return std::nullopt;
    return hostBits == 0 ? 32 : __builtin_clz(hostBits);
}

std::string readNetwork(const std::string& text, Ipv4Network& network)
{
    const auto slash = text.find('/');
    const auto address = parseAddress(text.substr(0, slash));
    if (!address) return quoted(text.substr(0, slash)) + " is no IPv4 address";
    network = {*address, 32};
    if (slash == std::string::npos) return {};

    const std::string behind = text.substr(slash + 1);
    if (const auto mask = parseAddress(behind)) {
        const auto prefix = prefixOf(*mask);
        if (!prefix) return "netmask " + quoted(behind) + " has holes";
        network.prefix = *prefix;
        return {};
    }
    const auto prefix = parsePrefixLength(behind);
    if (!prefix) return quoted(behind) + " is neither a prefix length from 0 to 32 nor a netmask";
    network.prefix = *prefix;
    return {};
}

std::string quoted(const std::string& text)
{
    std::string shown = wfoal::excerpt(text);
    shown.front() = shown.back() = '\'';
    return shown;
}

}  // namespace vpnoalctl
