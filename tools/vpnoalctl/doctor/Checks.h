// SPDX-License-Identifier: Apache-2.0
//
// What the doctor looks at. A check changes nothing that lasts.
#ifndef VPNOALCTL_CHECKS_H
#define VPNOALCTL_CHECKS_H

#include <string>

namespace vpnoalctl {

class Context;

enum class Health {
    Ok,
    Limited,  ///< something that not every tunnel needs is missing
    Missing,  ///< no tunnel can be brought up
    Unsafe    ///< somebody else can get at what only root may have
};

struct Finding {
    Health health;
    std::string detail;  ///< what was found
    std::string remedy;  ///< what to do about it; empty when it is well. Further lines show a file to write
};

struct Check {
    const char* name;
    Finding (*look)(Context& context);
};

// The plug-in, and what it runs.
Finding lookAtPlugin(Context& context);
Finding lookAtIpTool(Context& context);

// What the kernel and the privileges of this process allow.
Finding lookAtPrivileges(Context& context);
Finding lookAtTunDevice(Context& context);
Finding lookAtFilter(Context& context);

// The interface for the outer connection.
Finding lookAtPreferredInterface(Context& context);

// Who is on the bus, or would be started by it.
Finding lookAtBus(Context& context);
Finding lookAtResolver(Context& context);
Finding lookAtConnectionManager(Context& context);
Finding lookAtCertificateManager(Context& context);
Finding lookAtLogind(Context& context);

// Folders.
Finding lookAtTrustStore(Context& context);
Finding lookAtFolderOwners(Context& context);
Finding lookAtJournalFolder(Context& context);
Finding lookAtTemporaryFolder(Context& context);

}  // namespace vpnoalctl

#endif
