// SPDX-License-Identifier: Apache-2.0
//
// IPv4 addresses and networks, and their texts. Plain values, no system call.
#ifndef WFOAL_IPV4_H
#define WFOAL_IPV4_H

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "result/Result.h"

namespace wfoal {

struct Ipv4Address {
    in_addr_t bits = 0;  ///< network order, as the kernel has it

    /// The address as a number: 10.0.0.1 is 0x0a000001 on every machine.
    std::uint32_t number() const { return ntohl(bits); }
    static Ipv4Address fromNumber(std::uint32_t number) { return {htonl(number)}; }

    bool operator==(Ipv4Address other) const { return bits == other.bits; }
    bool operator!=(Ipv4Address other) const { return bits != other.bits; }
};

struct Ipv4Network {
    Ipv4Address address;
    std::uint8_t prefix = 32;  ///< length, 0 to 32

    Ipv4Address mask() const;
    /// The address with its host bits cleared.
    Ipv4Address base() const;
    bool contains(Ipv4Address other) const;
    bool operator==(const Ipv4Network& other) const { return address == other.address && prefix == other.prefix; }
    bool operator!=(const Ipv4Network& other) const { return !(*this == other); }
};

/// Four decimal numbers from 0 to 255 without leading zeros, with dots between them.
std::optional<Ipv4Address> parseDottedAddress(std::string_view text);

/// "0x" and eight hex digits: the network-order address read as a host integer.
std::optional<Ipv4Address> parseHexAddress(std::string_view text);

/// The prefix length of a netmask; none when the mask has holes.
std::optional<std::uint8_t> prefixLength(Ipv4Address netmask);

/// The netmask of a prefix length from 0 to 32.
Ipv4Address netmaskOf(std::uint8_t prefix);

/// Reads "ADDRESS", "ADDRESS/PREFIX LENGTH" or "ADDRESS/NETMASK". Host bits stay as they are written.
Result<Ipv4Network> parseNetwork(std::string_view text);

/// "10.8.0.1".
std::string dotted(Ipv4Address address);
/// "10.8.0.0/24".
std::string withPrefix(const Ipv4Network& network);

}  // namespace wfoal

#endif
