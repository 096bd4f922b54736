// SPDX-License-Identifier: Apache-2.0
//
// What stays outside of a tunnel: the VPN server and the networks of a profile's "bypass".
#ifndef VPNOALCTL_OUTSIDE_H
#define VPNOALCTL_OUTSIDE_H

#include <string>
#include <vector>

#include "json/StrictJson.h"
#include "settings/PlatformSettings.h"

namespace vpnoalctl {

using wfoal::BypassNetworks;

/// Adds the host or the network of a JSON text, of either family. Throws JsonError.
void addServer(const wfoal::JsonValue& value, BypassNetworks& outside);
void addBypass(const wfoal::JsonValue& value, BypassNetworks& outside);

/// All networks of both, each once, sorted.
BypassNetworks merged(const BypassNetworks& first, const BypassNetworks& second);
/// Whether the network itself is one of them.
bool contains(const BypassNetworks& sorted, const wfoal::Ipv4Network& network);

bool isEmpty(const BypassNetworks& outside);

/// The networks' texts: "192.0.2.7/32".
std::vector<std::string> textsOf(const BypassNetworks& outside);

}  // namespace vpnoalctl

#endif
