// SPDX-License-Identifier: Apache-2.0
//
// Reads an interface-configuration request. No system call.
#ifndef VKNETCONFIG_INTERFACEREQUEST_H
#define VKNETCONFIG_INTERFACEREQUEST_H

#include <optional>
#include <string>
#include <vector>

#include "resolved/DnsSettings.h"
#include "undolog/InterfaceValues.h"

namespace vknetconfig {

using wfoal::DnsSettings;
using wfoal::InterfaceAddress;
using wfoal::Route;

struct InterfaceRequest {
    std::string ifName;
    std::optional<InterfaceAddress> address;
    std::vector<Route> routes;
    std::vector<int> routeSources;  // of each route: its place in "additionalIfRoutes", or fromGateway
    DnsSettings dns;

    static constexpr int fromGateway = -1;
    /// The key that a route comes from.
    std::string routeKey(std::size_t index) const;
};

/// Throws a RequestError that names the key at fault.
InterfaceRequest parseInterfaceRequest(const char* json);

}  // namespace vknetconfig

#endif
