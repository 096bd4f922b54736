// SPDX-License-Identifier: Apache-2.0
//
// The commands of vpnoal-wg.
#ifndef VPNOALWG_AGENT_H
#define VPNOALWG_AGENT_H

#include <string>

#include "Context.h"

namespace vpnoalwg {

/// Brings a tunnel up and holds it until it is asked to end. Returns the exit status; throws CommandError.
int runAgent(vpnoalctl::Context& context, const std::string& nameOrFile);

/// Starts the agent in the background; the tunnel is ready when this returns 0.
int bringUpTunnel(vpnoalctl::Context& context, const std::string& nameOrFile);

/// Ends the agent, or removes what a killed one has left.
int takeTunnelDown(vpnoalctl::Context& context, const std::string& nameOrFile);

}  // namespace vpnoalwg

#endif
