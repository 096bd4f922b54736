// SPDX-License-Identifier: Apache-2.0
//
// The addresses of the peers, before the tunnel is there: afterwards the resolver may be inside of it.
#ifndef VPNOALWG_PEERLOOKUP_H
#define VPNOALWG_PEERLOOKUP_H

#include "config/TunnelPlan.h"

namespace vpnoalwg {

/// Asks the resolver for the names of hosts. Throws CommandError, which names the host.
PeerAddresses lookUpPeers(const WgConfig& config);

}  // namespace vpnoalwg

#endif
