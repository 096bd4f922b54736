// SPDX-License-Identifier: Apache-2.0
#include "kernel/Ipv4.h"

#include <arpa/inet.h>

#include <charconv>

namespace vknetconfig {

std::optional<in_addr> parseHexAddress(std::string_view text)
{
    if (text.size() != 10 || text.substr(0, 2) != "0x") return std::nullopt;
    in_addr address{};
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data() + 2, end, address.s_addr, 16);
    if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
    return address;
}

std::optional<in_addr> parseDottedAddress(std::string_view text)
{
    const char* at = text.data();
    const char* const end = at + text.size();
    std::uint32_t value = 0;
    for (int part = 0; part < 4; ++part) {
        if (part > 0 && (at == end || *at++ != '.')) return std::nullopt;
        std::uint8_t number = 0;
        const auto [after, error] = std::from_chars(at, end, number);
        if (error != std::errc() || (*at == '0' && after - at > 1)) return std::nullopt;
        value = value << 8 | number;
        at = after;
    }
    if (at != end) return std::nullopt;
    return in_addr{htonl(value)};
}

std::optional<std::uint8_t> prefixLength(in_addr netmask)
{
    const std::uint32_t hostBits = ~ntohl(netmask.s_addr);
    if ((hostBits & (hostBits + 1)) != 0) return std::nullopt;
    return static_cast<std::uint8_t>(hostBits == 0 ? 32 : __builtin_clz(hostBits));
}

in_addr netmaskOf(std::uint8_t prefix)
{
    return in_addr{prefix == 0 ? 0 : htonl(~std::uint32_t{0} << (32 - prefix))};
}

std::string dotted(in_addr address)
{
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

}  // namespace vknetconfig
