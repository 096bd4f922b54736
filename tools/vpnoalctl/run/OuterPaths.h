// SPDX-License-Identifier: Apache-2.0
//
// The addresses at which packets of the VPN server may arrive. A VPN program may answer from the one at which the last
// packet arrived, also when another interface is preferred now.
#ifndef VPNOALCTL_OUTERPATHS_H
#define VPNOALCTL_OUTERPATHS_H

#include <set>
#include <utility>
#include <vector>

#include "Decisions/RouteInfo.h"
#include "net/Ipv4.h"

namespace vpnoalctl {

class OuterPaths {
public:
    using Path = std::pair<unsigned int, in_addr_t>;  // interface and address

    /// True when one of them has gone since the last call: its address, its interface, or that one's link. Those of an
    /// interface with a default route among `routes` are remembered until they go.
    bool takeLoss(const std::vector<RouteInfo>& routes);

private:
    std::set<Path> mPaths;
};

}  // namespace vpnoalctl

#endif
