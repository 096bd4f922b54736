// SPDX-License-Identifier: Apache-2.0
//
// The surroundings of an operation, in its private namespaces: a bus, systemd-resolved, the tunnel's device, and what
// of all that a fault may not change.
#ifndef WFOAL_FAULTS_WORLD_H
#define WFOAL_FAULTS_WORLD_H

#include <memory>
#include <string>

#include "Daemons.h"
#include "LoadedPlugin.h"
#include "Operation.h"

namespace faults {

/// A bus and systemd-resolved, where that is installed.
class DnsWorld {
public:
    DnsWorld();
    bool hasResolved() const { return mResolved.running(); }

private:
    testsupport::ChildProcess mBus;
    testsupport::ChildProcess mResolved;
};

/// What ip, nft and resolvectl tell, and the files of the undo log.
struct NetworkState {
    std::string links;  // with addresses, routes and rules
    std::string filter;
    std::string dns;
    std::string undoLog;

    static NetworkState now(bool hasResolved);
    bool operator==(const NetworkState& other) const;
    bool operator!=(const NetworkState& other) const { return !(*this == other); }
    /// The same but for the packet filter of that label.
    bool isSameButFilter(const NetworkState& other, const std::string& label) const;
    /// The lines in which it differs.
    std::string differenceTo(const NetworkState& other) const;
};

}  // namespace faults

#endif
