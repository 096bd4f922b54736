// SPDX-License-Identifier: Apache-2.0
#include "Decisions/InterfaceChoice.h"

#include "Decisions/InterfaceNames.h"

namespace wfoal {

namespace {

// A default route with this priority or a higher one is never chosen.
constexpr std::int32_t priorityLimit = 9999;

// Compared as a signed number: the largest priorities of the kernel come out lowest.
std::int32_t priorityOf(const RouteInfo& route)
{
    return static_cast<std::int32_t>(route.priority);
}

bool isPhysical(const std::string& name)
{
    return isWan(name.c_str()) || isWiFi(name.c_str());
}

}  // namespace

// Backwards and with a strict comparison, so that the last of several equal routes wins.
InterfaceChoice chooseInterface(const RouteInfo* const* routes, std::size_t count, const InterfaceNamer& nameOf)
{
    InterfaceChoice best;
    std::int32_t bestPriority = priorityLimit;
    for (std::size_t i = count; i > 0; --i) {
        const RouteInfo* route = routes[i - 1];
        if (!route->isDefaultRoute() || priorityOf(*route) >= bestPriority) continue;
        std::string name = nameOf(route->oifIndex);
        if (!isPhysical(name)) continue;
        best = {std::move(name), route};
        bestPriority = priorityOf(*route);
    }
    return best;
}

RouteVerdict verdictOn(const RouteInfo& route, const std::string& name, const InterfaceChoice& choice)
{
    if (&route == choice.route) return RouteVerdict::Chosen;
    if (!route.isDefaultRoute()) return RouteVerdict::NotADefaultRoute;
    if (!isPhysical(name)) return RouteVerdict::OtherInterface;
    if (choice.route == nullptr || priorityOf(route) >= priorityLimit) return RouteVerdict::PriorityTooHigh;
    return priorityOf(route) == priorityOf(*choice.route) ? RouteVerdict::LostTie : RouteVerdict::HigherPriority;
}

}  // namespace wfoal
