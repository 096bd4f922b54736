// SPDX-License-Identifier: Apache-2.0
//
// Which physical interface the agent's outer connection should leave through: a decision on plain values, without a
// system call, and why each route was taken or not.
#ifndef WFOAL_INTERFACECHOICE_H
#define WFOAL_INTERFACECHOICE_H

#include <cstddef>
#include <functional>
#include <string>

#include "Decisions/RouteInfo.h"

namespace wfoal {

/// The interface's name, and the route that decided; empty and null when no route is usable.
struct InterfaceChoice {
    std::string name;
    const RouteInfo* route = nullptr;
};

using InterfaceNamer = std::function<std::string(std::uint32_t index)>;

/// Chooses among `count` routes in the kernel's order: the default route with the lowest priority through a cellular or
/// Ethernet-class interface; of several, the last. `nameOf` is asked about candidates only.
InterfaceChoice chooseInterface(const RouteInfo* const* routes, std::size_t count, const InterfaceNamer& nameOf);

enum class RouteVerdict {
    Chosen,
    NotADefaultRoute,
    OtherInterface,   ///< Neither cellular nor Ethernet-class.
    PriorityTooHigh,  ///< Never chosen, even alone.
    HigherPriority,   ///< Than that of the chosen route.
    LostTie,          ///< The chosen route has the same priority and comes later.
};

/// Why one route was chosen or not; `name` is that of its output interface.
RouteVerdict verdictOn(const RouteInfo& route, const std::string& name, const InterfaceChoice& choice);

}  // namespace wfoal

#endif
