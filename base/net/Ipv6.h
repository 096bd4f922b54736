// SPDX-License-Identifier: Apache-2.0
//
// IPv6 addresses and networks, and their texts. Plain values, no system call.
#ifndef WFOAL_IPV6_H
#define WFOAL_IPV6_H

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "result/Result.h"

namespace wfoal {

struct Ipv6Network {
    in6_addr address{};
    std::uint8_t prefix = 128;  ///< length, 0 to 128

    /// The address with its host bits cleared.
    in6_addr base() const;
    bool operator==(const Ipv6Network& other) const;
};

/// Any text form of an address, without a zone.
std::optional<in6_addr> parseIpv6Address(std::string_view text);

/// Reads "ADDRESS" or "ADDRESS/PREFIX LENGTH". Host bits stay as they are written.
Result<Ipv6Network> parseIpv6Network(std::string_view text);

/// "2001:db8::1".
std::string textOf(const in6_addr& address);
/// "2001:db8::/32".
std::string withPrefix(const Ipv6Network& network);

}  // namespace wfoal

#endif
