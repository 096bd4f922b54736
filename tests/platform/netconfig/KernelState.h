// SPDX-License-Identifier: Apache-2.0
//
// The independent judge: what iproute2 and nft print about the network namespace, and an interface to configure there.
#ifndef WFOAL_TEST_KERNELSTATE_H
#define WFOAL_TEST_KERNELSTATE_H

#include <string>
#include <vector>

namespace testsupport {

/// What a shell command prints, standard error included.
std::string outputOf(const std::string& command);

/// Runs a shell command that must succeed.
void run(const std::string& command);

/// Everything about links, addresses, routes, rules and the packet filter.
std::string networkSnapshot();

/// The routes that `ip -j` lists for an interface in the main table, each "DESTINATION via GATEWAY metric METRIC proto
/// PROTOCOL", sorted; without what the kernel made itself.
std::vector<std::string> routesOf(const std::string& ifName);

/// A veth interface with the address, up and settled, or without one and down. Its peer stays down, so that nothing
/// goes on by itself; it makes no IPv6 addresses.
void makeInterface(const std::string& name = "vpn0", const std::string& address = "10.8.0.2/24");

/// A request for "vpn0" with `count` routes to 20.0.0.0/24 and up, without the `first` ones, after other keys of
/// "ipv4".
std::string requestWithRoutes(int count, const std::string& ipv4Keys = {}, int first = 0);

}  // namespace testsupport

#endif
