// SPDX-License-Identifier: Apache-2.0
//
// Plain values of an interface's configuration, as the kernel holds them. Addresses are in network order.
#ifndef WFOAL_INTERFACEVALUES_H
#define WFOAL_INTERFACEVALUES_H

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <tuple>

namespace wfoal {

/// The protocol number of all that the platform adds: its mark on routes and addresses.
inline constexpr std::uint8_t platformProtocol = 119;

/// A unicast route of the main table through the interface at hand.
struct Route {
    in_addr_t destination = 0;
    in_addr_t gateway = 0;  // 0: the device itself
    std::uint32_t metric = 0;
    std::uint8_t prefix = 0;
};

inline bool operator<(const Route& a, const Route& b)
{
    return std::tie(a.destination, a.prefix, a.metric, a.gateway) <
           std::tie(b.destination, b.prefix, b.metric, b.gateway);
}

inline bool operator==(const Route& a, const Route& b)
{
    return std::tie(a.destination, a.prefix, a.metric, a.gateway) ==
           std::tie(b.destination, b.prefix, b.metric, b.gateway);
}

/// An address of the interface with the length of its network's prefix.
struct InterfaceAddress {
    in_addr_t local = 0;
    std::uint8_t prefix = 0;
};

inline bool operator==(const InterfaceAddress& a, const InterfaceAddress& b)
{
    return a.local == b.local && a.prefix == b.prefix;
}

/// What bringing a link up changes. The kernel gives it a queueing discipline, and, when it has no hardware address,
/// another way of making IPv6 addresses; neither goes back by itself.
struct LinkState {
    int index = 0;
    bool isUp = false;
    std::string queueing;        // kind of the root queueing discipline
    int addressGeneration = -1;  // IPv6 address generation mode; -1: none
    std::string name;
};

}  // namespace wfoal

#endif
