// SPDX-License-Identifier: Apache-2.0
//
// The interface that packets outside of the tunnel leave by: the one that the plug-in prefers. Where it prefers none,
// as on machines whose interfaces have other names, it is the one of the kernel's default route.
#ifndef VPNOALCTL_PHYSICALINTERFACE_H
#define VPNOALCTL_PHYSICALINTERFACE_H

#include <string>
#include <vector>

#include "Decisions/RouteInfo.h"
#include "handles/UniqueFd.h"
#include "kest/SocketPlugin.h"
#include "net/Ipv4.h"

namespace vpnoalctl {

struct PhysicalInterface {
    std::string name;              ///< empty: there is none
    unsigned int index = 0;        ///< 0 without one
    wfoal::Ipv4Address address{};  ///< 0.0.0.0: it has none
    wfoal::Ipv4Address gateway{};  ///< of its default route; 0.0.0.0: the link itself

    bool operator==(const PhysicalInterface& other) const
    {
        return index == other.index && address == other.address && gateway == other.gateway;
    }
    bool operator!=(const PhysicalInterface& other) const { return !(*this == other); }
};

class PhysicalChoice {
public:
    explicit PhysicalChoice(KEST_SocketPlugin& sockets) : mSockets(sockets) {}

    /// Chooses among the kernel's routes. Throws CommandError when the plug-in does not answer.
    PhysicalInterface choose(const std::vector<RouteInfo>& routes);

private:
    void bindTo(const PhysicalInterface& chosen);

    KEST_SocketPlugin& mSockets;
    PhysicalInterface mBound;
    UniqueFd mSocket;  // the plug-in reports network changes that concern a bound socket
};

/// The gateway by which a network is reached through the interface; 0.0.0.0 when it is on the link. `routes` are those
/// of the machine's own.
wfoal::Ipv4Address gatewayTo(const wfoal::Ipv4Network& network, const PhysicalInterface& through,
                             const std::vector<RouteInfo>& routes);

}  // namespace vpnoalctl

#endif
