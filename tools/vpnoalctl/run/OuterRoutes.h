// SPDX-License-Identifier: Apache-2.0
//
// Routes beside the tunnel, to the VPN server and the networks that stay outside, through the physical interface. The
// platform installs them, so that they are removed like everything else, also after a crash. While the physical
// interface is gone, its routes are gone too; then routes of last resort, to the loopback device, have the kernel drop
// the packets, which would else go into the tunnel.
#ifndef VPNOALCTL_OUTERROUTES_H
#define VPNOALCTL_OUTERROUTES_H

#include <string>
#include <vector>

#include "kernel/KernelRoutes.h"
#include "profile/Outside.h"
#include "run/PhysicalInterface.h"

namespace vpnoalctl {

class OuterRoutes {
public:
    OuterRoutes() = default;
    OuterRoutes(const OuterRoutes&) = delete;
    OuterRoutes& operator=(const OuterRoutes&) = delete;
    /// Removes them.
    ~OuterRoutes() { remove(); }

    /// Has the kernel lead the networks through the interface. Those through another interface are removed afterwards.
    /// Without an interface they stay as they are. Throws CommandError; then the earlier ones stay.
    void lead(const BypassNetworks& outside, const PhysicalInterface& through, const RoutesByOrigin& table);
    void remove();

private:
    struct Route {
        wfoal::Ipv4Network network;
        wfoal::Ipv4Address gateway;
        bool operator==(const Route& other) const { return network == other.network && gateway == other.gateway; }
    };

    static std::string requestFor(const std::string& interface, const std::vector<Route>& routes, std::uint32_t metric);
    void dropElsewhere(const BypassNetworks& outside);
    bool areInstalled(const RoutesByOrigin& table) const;

    PhysicalInterface mThrough;
    std::vector<Route> mRoutes;
    std::vector<wfoal::Ipv4Network> mDropped;
};

/// Tells the platform, for as long as it lives, which networks its guard lets through.
class GuardedBypass {
public:
    explicit GuardedBypass(const BypassNetworks& outside);
    GuardedBypass(const GuardedBypass&) = delete;
    GuardedBypass& operator=(const GuardedBypass&) = delete;
    ~GuardedBypass();

private:
    std::string mBefore;
};

}  // namespace vpnoalctl

#endif
