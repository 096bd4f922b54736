// SPDX-License-Identifier: Apache-2.0
//
// What the host platform still has installed for the tunnel, and its owner. The plug-in does not report whether a
// restore removed anything, so the platform's undo log and the kernel are read. With another platform nothing is found.
#ifndef VPNOALCTL_INSTALLEDSTATE_H
#define VPNOALCTL_INSTALLEDSTATE_H

#include <sys/types.h>

#include <array>
#include <string>

namespace vpnoalctl {

/// The tunnel's files in the platform's undo log, without their suffix: of its interface, and of its packet filter.
/// Throws CommandError when the network namespace is not known.
std::array<std::string, 2> undoLogFiles();

struct InstalledState {
    std::string reason;  // why it counts as installed; empty when nothing is installed
    pid_t owner = 0;     // the other process that installed it; 0 when there is none
};

/// Call it only while this process owns nothing: opening and closing a lock file would release this process's own lock.
InstalledState installedState();

}  // namespace vpnoalctl

#endif
