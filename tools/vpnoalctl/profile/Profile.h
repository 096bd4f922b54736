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
#include "profile/Outside.h"

namespace vpnoalctl {

struct TunnelSettings {
    wfoal::Ipv4Network address;              ///< the tunnel's own address and its prefix
    std::optional<wfoal::Ipv4Address> peer;  ///< none: an address and a prefix only
    unsigned int mtu = 1400;                 ///< bytes

    /// What is reached through the tunnel without a route: the peer's network, or its own.
    wfoal::Ipv4Network network() const { return {peer.value_or(address.address), address.prefix}; }
};

struct ProfileRoute {
    wfoal::Ipv4Network destination;
    wfoal::Ipv4Address gateway;  ///< 0.0.0.0: the device itself, or not known before the device is
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
    std::optional<TunnelSettings> tunnel;  ///< none: what the device says
    std::vector<std::string> dnsServers;
    std::vector<std::string> dnsDomains;
    std::vector<ProfileRoute> routes;
    std::vector<FilterRule> filter;
    BypassNetworks outside;  ///< the VPN server, and the networks that stay outside of the tunnel
};

/// Reads a profile that is a part of a JSON document. Throws JsonError; the keys of its errors begin at the document's
/// root, or at the profile's.
Profile readProfile(const wfoal::JsonValue& value);

/// Reads a profile from its text. Throws CommandError with ExitUsage; `file` is the name it gives in the error.
Profile parseProfile(const std::string& text, const std::string& file);

/// Reads a profile by its name (profilePath()), from a file, or from standard input when `file` is "-". Throws as
/// parseProfile(), also when the file cannot be read or is larger than 64 MiB.
Profile loadProfile(const std::string& file);

/// What a device that is made for the profile gets. Throws CommandError with ExitUsage when the profile does not say;
/// `file` is the name it gives in the error.
const TunnelSettings& tunnelToMake(const Profile& profile, const std::string& file);

/// The profile for a device that has these settings: its routes get their gateways. Throws CommandError with ExitUsage
/// when a gateway cannot be reached through the device.
Profile completedFor(const TunnelSettings& device, Profile profile);

}  // namespace vpnoalctl

#endif
