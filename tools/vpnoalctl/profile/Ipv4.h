// SPDX-License-Identifier: Apache-2.0
//
// IPv4 addresses and networks as a profile writes them.
#ifndef VPNOALCTL_IPV4_H
#define VPNOALCTL_IPV4_H

#include <cstdint>
#include <optional>
#include <string>

namespace vpnoalctl {

struct Ipv4Address {
    std::uint32_t bits = 0;  ///< host order

    bool operator==(Ipv4Address other) const { return bits == other.bits; }
    bool operator!=(Ipv4Address other) const { return bits != other.bits; }
};

struct Ipv4Network {
    Ipv4Address address;
    int prefix = 32;

    Ipv4Address mask() const;
    /// The address with its host bits cleared.
    Ipv4Address base() const;
    bool contains(Ipv4Address other) const;
    bool operator==(const Ipv4Network& other) const { return address == other.address && prefix == other.prefix; }
};

std::string dotted(Ipv4Address address);
/// "10.8.0.0/24".
std::string withPrefix(const Ipv4Network& network);

/// Four decimal numbers from 0 to 255 without leading zeros, with dots between them.
std::optional<Ipv4Address> parseAddress(const std::string& text);
/// The prefix length of a netmask; none when the mask has holes.
std::optional<int> prefixOf(Ipv4Address mask);

/// Reads "ADDRESS", "ADDRESS/PREFIX LENGTH" or "ADDRESS/NETMASK". Returns an empty text, or what is wrong with `text`.
std::string readNetwork(const std::string& text, Ipv4Network& network);

/// Text of a profile in a form fit for an error line: quoted, printable, 40 characters at most.
std::string quoted(const std::string& text);

}  // namespace vpnoalctl

#endif
