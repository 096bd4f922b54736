// SPDX-License-Identifier: Apache-2.0
//
// Values of a WireGuard configuration. Each function says in its fault what is wrong with the value.
#ifndef VPNOALWG_WGVALUES_H
#define VPNOALWG_WGVALUES_H

#include <cstdint>
#include <string>
#include <string_view>

#include "config/WgConfig.h"
#include "result/Result.h"

namespace vpnoalwg {

/// Foreign text fit for an error line, unless it might be a key that stands in the wrong place.
std::string shown(std::string_view value);

/// 32 bytes as base64. The fault never holds the value.
wfoal::Check checkKey(std::string_view value);

/// A decimal number.
wfoal::Result<std::uint32_t> numberOf(std::string_view value, std::uint32_t least, std::uint32_t most);

/// A number of 32 bits, decimal, or hexadecimal after "0x", or "off".
wfoal::Check checkMark(std::string_view value);

/// Adds an address or a network of either family; host bits stay.
wfoal::Check addNetwork(std::string_view word, MixedNetworks& networks);

/// "HOST:PORT" or "[ADDRESS]:PORT".
wfoal::Result<WgEndpoint> endpointOf(std::string_view value);

}  // namespace vpnoalwg

#endif
