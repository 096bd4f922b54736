// SPDX-License-Identifier: Apache-2.0
//
// What becomes of a WireGuard configuration: the part of wg(8), the profile of the plug-in, and the commands. Plain
// values, no system call.
#ifndef VPNOALWG_TUNNELPLAN_H
#define VPNOALWG_TUNNELPLAN_H

#include <netinet/in.h>

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "config/WgConfig.h"
#include "profile/Profile.h"
#include "result/Result.h"
#include "settings/PlatformSettings.h"

namespace vpnoalwg {

/// A peer's endpoint with its address.
struct PeerAddress {
    std::variant<wfoal::Ipv4Address, in6_addr> address;
    std::string text;  ///< as wg(8) reads it, with the port
};

/// One for each peer of a configuration; none for a peer without an endpoint.
using PeerAddresses = std::vector<std::optional<PeerAddress>>;

/// An endpoint whose host is an address; none for a name.
std::optional<PeerAddress> numericAddress(const WgEndpoint& endpoint);

/// Whether a tunnel can be made of it: the plug-in needs an IPv4 address for the device.
wfoal::Check checkUsable(const WgConfig& config);

/// What 'wg setconf' reads: every value as it was written, with addresses in place of host names. It holds the keys.
std::string wgPartOf(const WgConfig& config, const PeerAddresses& peers);

/// Routes and DNS. The device says its addresses itself.
vpnoalctl::Profile profileOf(const WgConfig& config);

/// The hosts that must be reached beside the tunnel, which are the peers. Without loopback addresses.
wfoal::BypassNetworks serversOf(const PeerAddresses& peers);

/// What the configuration asks for and does not get: each a whole line.
std::vector<std::string> warningsFor(const WgConfig& config, bool hasIpv6Guard);

/// A command with the device's name in place of each "%i".
std::string commandFor(const std::string& command, const std::string& device);

}  // namespace vpnoalwg

#endif
