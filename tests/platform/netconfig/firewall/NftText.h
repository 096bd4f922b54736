// SPDX-License-Identifier: Apache-2.0
//
// A packet filter in nft's own language: what the library's messages must amount to.
#ifndef WFOAL_TEST_NFTTEXT_H
#define WFOAL_TEST_NFTTEXT_H

#include <string>

#include "firewall/FirewallRequest.h"

namespace testsupport {

/// The commands that install a packet filter, in place of the label's earlier one. Given to nft at once they are
/// one transaction.
std::string setUpCommands(const vknetconfig::FirewallRequest& request);

}  // namespace testsupport

#endif
