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
    Missing   ///< no tunnel can be brought up
};

struct Finding {
    Health health;
    std::string detail;  ///< what was found
    std::string remedy;  ///< what to do about it; empty when it is well
};

struct Check {
    const char* name;
    Finding (*look)(Context& context);
};

// The plug-in.
Finding lookAtPlugin(Context& context);

// What the kernel and the privileges of this process allow.
Finding lookAtPrivileges(Context& context);
Finding lookAtTunDevice(Context& context);
Finding lookAtFilter(Context& context);

// What else is installed and running.
Finding lookAtResolver(Context& context);
Finding lookAtBus(Context& context);
Finding lookAtIpTool(Context& context);

// Folders.
Finding lookAtJournalFolder(Context& context);
Finding lookAtTemporaryFolder(Context& context);

}  // namespace vpnoalctl

#endif
