// SPDX-License-Identifier: Apache-2.0
//
// The checks of the doctor. A check makes no lasting change.
#ifndef VPNOALCTL_CHECKS_H
#define VPNOALCTL_CHECKS_H

#include <string>

namespace vpnoalctl {

class Context;

enum class Health {
    Ok,
    Limited,  ///< something is missing that only some tunnels need
    Missing,  ///< no tunnel can be brought up
    Unsafe    ///< another user can change what only root may change
};

struct Finding {
    Health health;
    std::string detail;  ///< what was found
    std::string remedy;  ///< what to do about it; empty when nothing is wrong. Further lines show a file to write
};

struct Check {
    const char* name;
    Finding (*run)(Context& context);
};

// The plug-in, and what it runs.
Finding checkPlugin(Context& context);
Finding checkIpTool(Context& context);

// What the kernel and the privileges of this process allow.
Finding checkPrivileges(Context& context);
Finding checkTunDevice(Context& context);
Finding checkFilter(Context& context);

// What may leave beside a tunnel.
Finding checkGuard(Context& context);

// The interface for the outer connection.
Finding checkPreferredInterface(Context& context);

// Services that are on the bus, or that the bus can start.
Finding checkBus(Context& context);
Finding checkResolver(Context& context);
Finding checkConnectionManager(Context& context);
Finding checkCertificateManager(Context& context);
Finding checkLogind(Context& context);

// Folders.
Finding checkTrustStore(Context& context);
Finding checkFolderOwners(Context& context);
Finding checkUndoLogFolder(Context& context);
Finding checkTemporaryFolder(Context& context);

}  // namespace vpnoalctl

#endif
