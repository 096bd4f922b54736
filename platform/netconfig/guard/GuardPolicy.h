// SPDX-License-Identifier: Apache-2.0
//
// Whether a request needs a guard, and which: from its routes, the administrator's settings and the agent's own
// networks and connections.
#ifndef VKNETCONFIG_GUARDPOLICY_H
#define VKNETCONFIG_GUARDPOLICY_H

#include <optional>

#include "interface/InterfaceRequest.h"
#include "undolog/GuardRules.h"

namespace vknetconfig {

using wfoal::GuardRules;

/// None when the request leaves some IPv4 traffic outside of the tunnel, or when all settings are off. Reads the
/// settings, and VKNETCONFIG_BYPASS of the environment: networks that the agent reaches beside the tunnel. Throws a
/// RequestError with the key "guard" when one of them is wrong.
std::optional<GuardRules> guardFor(const InterfaceRequest& request);

}  // namespace vknetconfig

#endif
