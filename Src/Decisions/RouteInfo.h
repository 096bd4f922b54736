// SPDX-License-Identifier: Apache-2.0
//
// One IPv4 route of the kernel, as plain values. Addresses are in network byte order; what a route does not have is 0.
#ifndef WFOAL_ROUTEINFO_H
#define WFOAL_ROUTEINFO_H

#include <netinet/in.h>

#include <cstdint>

struct RouteInfo {
    std::uint32_t iifIndex;  // input interface
    std::uint32_t oifIndex;  // output interface
    std::uint32_t priority;  // what `ip route` calls metric
    std::uint32_t metric;    // first word of the nested RTA_METRICS as it stands; not the priority
    in_addr mask;
    in_addr gateway;
    in_addr src;
    in_addr prefSrc;
    in_addr dst;
    std::uint8_t table;

    bool isDefaultRoute() const { return dst.s_addr == 0 && mask.s_addr == 0; }
};

#endif
