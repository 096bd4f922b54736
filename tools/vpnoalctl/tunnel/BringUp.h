// SPDX-License-Identifier: Apache-2.0
//
// Driving the system object as an agent does: describe the tunnel piece by piece, then apply.
#ifndef VPNOALCTL_BRINGUP_H
#define VPNOALCTL_BRINGUP_H

#include "Output.h"
#include "kest/SystemPlugin.h"
#include "profile/Profile.h"

namespace vpnoalctl {

/// Passes the whole profile to the plug-in and applies it. Throws CommandError when the platform refuses it. Then the
/// caller must restore.
void bringUp(KEST_SystemPlugin& system, const Profile& profile);

/// Throws CommandError when the profile's packet filter is not installed, which the plug-in does not report. Then the
/// caller must restore.
void verifyFilter(const Profile& profile);

/// What the profile installs, as a JSON object.
JsonPtr summaryOf(const Profile& profile);

/// Prints what is installed: a table, or one JSON object with "state": `state`.
void printSummary(Output& output, const Profile& profile, const char* state);

}  // namespace vpnoalctl

#endif
