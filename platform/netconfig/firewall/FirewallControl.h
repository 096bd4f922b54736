// SPDX-License-Identifier: Apache-2.0
//
// Installs and removes packet filters, each as one transaction of the kernel. The undo log names a table before it is
// made. Tables without our mark are never touched. Used under the library's one mutex, while the undo log is locked.
// Failures throw a RequestError that names the key or the step.
#ifndef VKNETCONFIG_FIREWALLCONTROL_H
#define VKNETCONFIG_FIREWALLCONTROL_H

#include <string>
#include <string_view>

#include "firewall/FirewallRequest.h"
#include "kernel/NetlinkSocket.h"
#include "undolog/UndoLog.h"

namespace vknetconfig {

class FirewallControl {
public:
    explicit FirewallControl(UndoLog& undoLog) : mUndoLog(undoLog) {}

    /// Installs or removes the filter of the request.
    void apply(const FirewallRequest& request);

    /// The subject in the undo log for a label.
    static std::string subjectOf(std::string label);
    /// True for subjects of the undo log that stand for a packet filter.
    static bool isSubject(std::string_view subject);
    /// Removes what an ended process had installed.
    void removeStale(const std::string& subject);

private:
    void setUp(const FirewallRequest& request);
    void rollBack(const std::string& label);
    void remove(const std::string& label);

    UndoLog& mUndoLog;
    // Stays open, as closing it right after a change waits for the kernel to clean up (5 to 15 ms).
    NetlinkSocket mSocket{NETLINK_NETFILTER, "nftables"};
};

}  // namespace vknetconfig

#endif
