// SPDX-License-Identifier: Apache-2.0
//
// A profile: everything that one tunnel needs, read from a JSON file (docs/profile.md). Reading is strict and checks
// everything that can be checked without touching the system, because the plug-in itself checks nothing and its
// platform's verdict on filter rules is not reported to an agent.
#ifndef VPNOALCTL_PROFILE_H
#define VPNOALCTL_PROFILE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kest/SystemPlugin.h"
#include "net/Ipv4.h"

namespace vpnoalctl {

struct TunnelSettings {
    wfoal::Ipv4Network address;  ///< the tunnel's own address and its prefix
    wfoal::Ipv4Address peer;
    unsigned int mtu = 1400;  ///< bytes

    /// What is reached through the tunnel without a route: the peer's network.
    wfoal::Ipv4Network network() const { return {peer, address.prefix}; }
};

struct ProfileRoute {
    wfoal::Ipv4Network destination;
    wfoal::Ipv4Address gateway;
    std::uint32_t metric = 0;
};

/// Where a packet comes from or goes to.
struct Endpoint {
    std::optional<wfoal::Ipv4Network> network;  ///< none: any
    std::uint16_t port = 0;                     ///< 0: any
};

struct FilterRule {
    KEST_FilterAction action = FILTER_ACTION_ACCEPT;
    KEST_FilterApplyDirection direction = FILTER_DIRECTION_BOTH;
    std::string interface;  ///< with the directions in and out
    KEST_FilterProtocol protocol = FILTER_PROTOCOL_ANY;
    Endpoint source;
    Endpoint destination;
};

struct Profile {
    TunnelSettings tunnel;
    std::vector<std::string> dnsServers;
    std::vector<std::string> dnsDomains;
    std::vector<ProfileRoute> routes;
    std::vector<FilterRule> filter;
};

/// Reads a profile from its text. Throws CommandError with ExitUsage; `file` is the name it gives in the error.
Profile parseProfile(const std::string& text, const std::string& file);

/// Reads a profile from a file, or from standard input when `file` is "-". Throws as parseProfile(), also when the file
/// cannot be read or is larger than 64 MiB.
Profile loadProfile(const std::string& file);

}  // namespace vpnoalctl

#endif
