// SPDX-License-Identifier: Apache-2.0
//
// Driving the system object as an agent does: describe the tunnel piece by piece, then apply.
#ifndef VPNOALCTL_BRINGUP_H
#define VPNOALCTL_BRINGUP_H

#include "Output.h"
#include "kest/SystemPlugin.h"
#include "profile/Profile.h"

namespace vpnoalctl {

/// Hands the whole profile to the plug-in and applies it. Throws CommandError when the platform refuses it; the caller
/// restores then.
void bringUp(KEST_SystemPlugin& system, const Profile& profile);

/// Throws CommandError when the profile's packet filter is not in force, which an agent is not told; the caller
/// restores then.
void verifyFilter(const Profile& profile);

/// What the profile puts in force, as a JSON object.
JsonPtr summaryOf(const Profile& profile);

/// Tells what is in force: a table, or one JSON object with "state": `state`.
void printSummary(Output& output, const Profile& profile, const char* state);

}  // namespace vpnoalctl

#endif
