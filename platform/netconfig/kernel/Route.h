// SPDX-License-Identifier: Apache-2.0
//
// Plain values of an interface's configuration, as the kernel holds them. Addresses are in network order.
#ifndef VKNETCONFIG_ROUTE_H
#define VKNETCONFIG_ROUTE_H

#include <netinet/in.h>

#include <cstdint>
#include <tuple>

namespace vknetconfig {

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

}  // namespace vknetconfig

#endif
