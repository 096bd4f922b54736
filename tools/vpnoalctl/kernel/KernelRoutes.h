// SPDX-License-Identifier: Apache-2.0
//
// The kernel's IPv4 routes as the tool reads them itself, beside the plug-in: to explain what the plug-in chose, and to
// check whether a deletion succeeded.
#ifndef VPNOALCTL_KERNELROUTES_H
#define VPNOALCTL_KERNELROUTES_H

#include <string>
#include <vector>

#include "Decisions/InterfaceChoice.h"
#include "Decisions/RouteInfo.h"

namespace vpnoalctl {

/// All tables, in the kernel's order. Throws CommandError.
std::vector<RouteInfo> kernelRoutes();

/// The same, those that the platform installed apart from all others.
struct RoutesByOrigin {
    std::vector<RouteInfo> platforms;
    std::vector<RouteInfo> others;
};
RoutesByOrigin kernelRoutesByOrigin();

/// The choice that the plug-in would make among these routes, which must outlive it.
wfoal::InterfaceChoice chooseAmong(const std::vector<RouteInfo>& routes);

constexpr char noInterface[] = "-";

/// Name of an interface; `noInterface` when there is none.
std::string interfaceName(std::uint32_t index);

/// "10.8.0.0/24", or "default".
std::string destinationText(const RouteInfo& route);

std::string addressText(in_addr address);

}  // namespace vpnoalctl

#endif
