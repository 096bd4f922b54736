// SPDX-License-Identifier: Apache-2.0
//
// What openvpn-hook does when OpenVPN runs it.
#ifndef VPNOALCTL_HOOK_H
#define VPNOALCTL_HOOK_H

#include <optional>
#include <string>
#include <vector>

#include "openvpn/OpenVpnTunnel.h"

namespace vpnoalctl {

/// What one call of a script asks for.
enum class HookStep {
    Check,    ///< nothing is changed: the configuration is complete, and OpenVPN says more later
    Apply,    ///< the configuration is installed, in place of an earlier one
    Keep,     ///< a restart: everything stays as it is
    Restore,  ///< the end
};

/// The step for the script that the variables name. `isInstalled`: a configuration of this tunnel is installed already.
/// `tunnel` is empty where the variables do not describe one. Throws VariableError.
HookStep stepFor(const ScriptVariables& variables, bool isInstalled, const std::optional<OpenVpnTunnel>& tunnel);

/// Whether OpenVPN ends for this reason, as the variable "signal" has it. All other reasons are those of a restart.
bool isEnd(std::string_view signal);

/// The program: from the command line to the exit code. Never throws.
int runHook(int argc, char** argv, const std::vector<std::string>& environment);

}  // namespace vpnoalctl

#endif
