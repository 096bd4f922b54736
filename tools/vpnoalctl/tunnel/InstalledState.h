// SPDX-License-Identifier: Apache-2.0
//
// What the host platform still has installed for the tunnel, and whose it is. The plug-in does not tell its agent
// whether a restore removed anything, so the platform's journal and the kernel are looked at. Where the platform is not
// this project's own, nothing is found.
#ifndef VPNOALCTL_INSTALLEDSTATE_H
#define VPNOALCTL_INSTALLEDSTATE_H

#include <sys/types.h>

#include <array>
#include <string>

namespace vpnoalctl {

/// The tunnel's files in the platform's journal, without their suffix: of its interface, and of its packet filter.
/// Throws CommandError when the network namespace is not known.
std::array<std::string, 2> journalFiles();

struct InstalledState {
    std::string reason;  // why it counts as installed; empty when nothing is
    pid_t owner = 0;     // the other process that it belongs to, if one does
};

/// Call it only while this process owns nothing: looking at a lock would end this process's own.
InstalledState installedState();

}  // namespace vpnoalctl

#endif
