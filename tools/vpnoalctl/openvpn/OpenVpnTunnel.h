// SPDX-License-Identifier: Apache-2.0
//
// What OpenVPN wants to have configured, read from the variables that it gives to its scripts.
#ifndef VPNOALCTL_OPENVPNTUNNEL_H
#define VPNOALCTL_OPENVPNTUNNEL_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "net/Ipv4.h"
#include "openvpn/ScriptVariables.h"

namespace vpnoalctl {

struct OpenVpnRoute {
    wfoal::Ipv4Network destination;
    std::optional<wfoal::Ipv4Address> gateway;
    std::uint32_t metric = 0;
};

struct OpenVpnTunnel {
    wfoal::Ipv4Network address;              ///< its own address and prefix; /32 with a peer
    std::optional<wfoal::Ipv4Address> peer;  ///< with the topologies net30 and p2p
    std::optional<std::uint32_t> mtu;        ///< bytes
    std::vector<OpenVpnRoute> routes;
    std::vector<std::string> bypass;  ///< networks that are reached beside the tunnel
    std::optional<std::string> server;
    std::vector<std::string> dnsServers;
    std::vector<std::string> dnsDomains;
    /// Whether all traffic is to go into the tunnel. None: OpenVPN does not say.
    std::optional<bool> allTraffic;
    /// What is there and not used, each a phrase for a person.
    std::vector<std::string> notApplied;
};

/// The most variables of one kind, so that a server cannot exhaust the machine.
constexpr std::size_t mostRoutes = 4096;
constexpr std::size_t mostDnsEntries = 64;

/// A pure function of the variables. Throws VariableError, which names the variable at fault.
OpenVpnTunnel readTunnel(const ScriptVariables& variables);

/// The DNS part of readTunnel().
void readDns(const ScriptVariables& variables, OpenVpnTunnel& tunnel);

/// The tunnel as a profile, the JSON text that parseProfile() reads.
std::string profileText(const OpenVpnTunnel& tunnel);

}  // namespace vpnoalctl

#endif
