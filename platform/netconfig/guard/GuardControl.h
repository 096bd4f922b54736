// SPDX-License-Identifier: Apache-2.0
//
// The guard of a tunnel that takes all IPv4 traffic: a packet filter that rejects what would leave beside it. Installed
// and removed as one transaction of the kernel each; the undo log has an entry for it before. Used under the library's
// one mutex, while the undo log is locked. Failures throw a RequestError.
#ifndef VKNETCONFIG_GUARDCONTROL_H
#define VKNETCONFIG_GUARDCONTROL_H

#include <optional>
#include <string>
#include <string_view>

#include "kernel/NetlinkSocket.h"
#include "undolog/GuardRules.h"
#include "undolog/UndoLog.h"

namespace vknetconfig {

using wfoal::GuardRules;

class GuardControl {
public:
    explicit GuardControl(UndoLog& undoLog) : mUndoLog(undoLog) {}

    /// Makes the rules those of the interface's guard, in place of earlier ones; without rules there is none
    /// afterwards. Returns the earlier rules. When it throws, the earlier guard is still installed.
    std::optional<GuardRules> replace(const std::string& ifName, const std::optional<GuardRules>& rules);

    /// Removes the guard of the interface, if there is one.
    void remove(const std::string& ifName);

    /// The subject in the undo log for the guard of an interface.
    static std::string subjectOf(const std::string& ifName);
    static bool isSubject(std::string_view subject);
    /// Removes what an ended process had installed. A guard that also rejects IPv4 is kept: what the administrator
    /// asked for with "strict" ends with a request for the interface itself only.
    void removeStale(const std::string& subject);

private:
    std::optional<GuardRules> earlierRules(const std::string& subject, const std::string& content);
    void install(const std::string& subject, const GuardRules& rules, const std::optional<GuardRules>& earlier);
    void rollBack(const std::string& subject, const std::string& ifName, const std::optional<GuardRules>& earlier);
    void removeTableOf(const std::string& ifName);

    UndoLog& mUndoLog;
    NetlinkSocket mSocket{NETLINK_NETFILTER, "guard"};
};

/// While a request works: its guard is installed before anything else. The earlier one comes back at the end of the
/// scope, unless commit() was called.
class GuardChange {
public:
    /// A guard that is not needed any more stays until commit().
    GuardChange(GuardControl& control, std::string ifName, const std::optional<GuardRules>& wanted);
    GuardChange(const GuardChange&) = delete;
    GuardChange& operator=(const GuardChange&) = delete;
    ~GuardChange();

    /// The request has succeeded. Does not throw: a guard that cannot be removed stays for the next request.
    void commit();

private:
    GuardControl& mControl;
    std::string mIfName;
    bool mIsWanted;
    bool mIsCommitted = false;
    std::optional<GuardRules> mEarlier;
};

}  // namespace vknetconfig

#endif
