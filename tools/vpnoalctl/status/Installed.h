// SPDX-License-Identifier: Apache-2.0
//
// What the undo log says is installed, as plain values.
#ifndef VPNOALCTL_INSTALLED_H
#define VPNOALCTL_INSTALLED_H

#include <string>
#include <vector>

#include "status/UndoLogFolder.h"
#include "undolog/GuardRules.h"
#include "undolog/InterfaceRecord.h"

namespace vpnoalctl {

struct InstalledInterface {
    Owner owner;
    wfoal::InterfaceRecord record;
};

struct InstalledGuard {
    Owner owner;
    wfoal::GuardRules rules;
};

struct InstalledFilter {
    Owner owner;
    std::string table;
};

struct Installed {
    std::vector<InstalledInterface> interfaces;
    std::vector<InstalledGuard> guards;
    std::vector<InstalledFilter> filters;
    std::vector<std::string> faults;  // of entries that cannot be read

    bool empty() const { return interfaces.empty() && guards.empty() && filters.empty() && faults.empty(); }
};

/// The tunnel comes before other interfaces.
Installed decode(const std::vector<LogEntry>& entries);

}  // namespace vpnoalctl

#endif
