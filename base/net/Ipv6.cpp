// SPDX-License-Identifier: Apache-2.0
#include "net/Ipv6.h"

#include <arpa/inet.h>

#include <array>
#include <cstring>

#include "net/PrefixLength.h"
#include "text/Excerpt.h"

namespace wfoal {

namespace {

constexpr std::uint8_t longestPrefix = 128;

}  // namespace

in6_addr Ipv6Network::base() const
{
    in6_addr base = address;
    for (unsigned bit = prefix; bit < longestPrefix; ++bit)
        base.s6_addr[bit / 8] = static_cast<std::uint8_t>(base.s6_addr[bit / 8] & ~(0x80U >> bit % 8));
    return base;
}

bool Ipv6Network::operator==(const Ipv6Network& other) const
{
    return prefix == other.prefix && std::memcmp(&address, &other.address, sizeof address) == 0;
}

std::optional<in6_addr> parseIpv6Address(std::string_view text)
{
    std::array<char, INET6_ADDRSTRLEN> terminated{};
    if (text.size() >= terminated.size() || text.find('\0') != std::string_view::npos) return std::nullopt;
    text.copy(terminated.data(), text.size());
    in6_addr address{};
    if (inet_pton(AF_INET6, terminated.data(), &address) != 1) return std::nullopt;
    return address;
}

Result<Ipv6Network> parseIpv6Network(std::string_view text)
{
    const std::size_t slash = text.find('/');
    const std::string_view first = text.substr(0, slash);
    const auto address = parseIpv6Address(first);
    if (!address) return Fault{excerpt(first) + " is no IPv6 address"};
    if (slash == std::string_view::npos) return Ipv6Network{*address, longestPrefix};
    const std::string_view length = text.substr(slash + 1);
    const auto prefix = parsePrefixLength(length, longestPrefix);
    if (!prefix) return Fault{excerpt(length) + " is no prefix length from 0 to 128"};
    return Ipv6Network{*address, *prefix};
}

std::string textOf(const in6_addr& address)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    inet_ntop(AF_INET6, &address, text.data(), text.size());
    return text.data();
}

std::string withPrefix(const Ipv6Network& network)
{
    return textOf(network.address) + "/" + std::to_string(network.prefix);
}

}  // namespace wfoal
