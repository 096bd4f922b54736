// SPDX-License-Identifier: Apache-2.0
//
// The connections of this process: the far ends of its connected TCP and UDP sockets.
#ifndef VKNETCONFIG_AGENTCONNECTIONS_H
#define VKNETCONFIG_AGENTCONNECTIONS_H

#include "undolog/GuardRules.h"

namespace vknetconfig {

using wfoal::GuardRules;

/// Adds them to the rules, sorted, each once. Throws a RequestError with the key "guard" when they cannot be listed.
void addAgentConnections(GuardRules& rules);

}  // namespace vknetconfig

#endif
