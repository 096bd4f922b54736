// SPDX-License-Identifier: Apache-2.0
//
// IPv4 addresses and masks as texts. Addresses are in_addr, in network order.
#ifndef VKNETCONFIG_IPV4_H
#define VKNETCONFIG_IPV4_H

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vknetconfig {

/// "0x" and eight hex digits: the network-order address read as a host integer.
std::optional<in_addr> parseHexAddress(std::string_view text);

/// Four decimal numbers from 0 to 255 without leading zeros, with dots between them.
std::optional<in_addr> parseDottedAddress(std::string_view text);

/// The prefix length of a netmask; none when the mask has holes.
std::optional<std::uint8_t> prefixLength(in_addr netmask);

/// The netmask of a prefix length from 0 to 32.
in_addr netmaskOf(std::uint8_t prefix);

std::string dotted(in_addr address);

}  // namespace vknetconfig

#endif
