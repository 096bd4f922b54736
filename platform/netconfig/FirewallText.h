// SPDX-License-Identifier: Apache-2.0
//
// The language of nft, from checked values.
#ifndef VKNETCONFIG_FIREWALLTEXT_H
#define VKNETCONFIG_FIREWALLTEXT_H

#include <string>
#include <string_view>

#include "FirewallRequest.h"

namespace vknetconfig {

/// The comment on each table of ours. A table without it is somebody else's.
inline constexpr std::string_view tableMark = "vknetconfig";

/// The commands that put a packet filter in force, in place of the label's earlier one. Given to nft at once they are
/// one transaction.
///
/// The rules are in a chain of the request's name. Each base chain jumps there and lets through what no rule decides.
/// A rule with a port and no protocol becomes two: one for TCP, one for UDP.
std::string setUpCommands(const FirewallRequest& request);

/// The command that removes the label's packet filter.
std::string removalCommand(std::string_view label);

}  // namespace vknetconfig

#endif
