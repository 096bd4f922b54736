// SPDX-License-Identifier: Apache-2.0
//
// Installs and removes interface configurations, whole or not at all. What is to be changed is first written to the
// undo log; only what is still there and still ours is removed. Used under the library's one mutex, while the undo log
// is locked. Failures throw a RequestError that names the key or the step.
#ifndef VKNETCONFIG_INTERFACECONTROL_H
#define VKNETCONFIG_INTERFACECONTROL_H

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "dns/Dns.h"
#include "guard/GuardControl.h"
#include "interface/InstalledConfiguration.h"
#include "interface/InterfaceRequest.h"
#include "kernel/NetlinkSocket.h"
#include "undolog/InterfaceRecord.h"
#include "undolog/UndoLog.h"

namespace vknetconfig {

using wfoal::LinkState;

class InterfaceControl {
public:
    InterfaceControl(UndoLog& undoLog, GuardControl& guards) : mUndoLog(undoLog), mGuards(guards) {}

    /// Installs the configuration, in place of the one that the interface has from here, or from a process that has
    /// ended. Only the difference is changed. The earlier one stays installed when this one fails. The guard, when
    /// there is one, is installed before the routes.
    void apply(const InterfaceRequest& request, const std::optional<GuardRules>& guard);

    /// Removes what is installed on the interface, and then its guard, unless that is kept.
    void remove(const std::string& ifName);

    /// The subject in the undo log for an interface.
    static std::string subjectOf(const std::string& ifName);

    /// True for subjects of the undo log that stand for an interface.
    static bool isSubject(std::string_view subject);
    /// Removes what an ended process had installed, except for its guard, which is a subject of its own.
    void removeStale(const std::string& subject);

private:
    /// What a request changes, next to what was installed before it.
    struct Plan {
        InterfaceRecord wanted;   // installed afterwards
        InterfaceRecord added;    // not installed yet
        InterfaceRecord dropped;  // no longer wanted
        bool hasDnsBegun = false;
    };

    void replace(const InterfaceRequest& request, const std::string& subject, InterfaceRecord& earlier);
    LinkState linkFor(const InterfaceRequest& request, InterfaceRecord& earlier);
    Plan plan(const InterfaceRequest& request, const LinkState& link, const InterfaceRecord& earlier);
    void planAddress(const InterfaceRequest& request, const InterfaceRecord& earlier, Plan& plan);
    void planRoutes(const InterfaceRequest& request, const InterfaceRecord& earlier, Plan& plan);
    void planDns(const InterfaceRequest& request, const InterfaceRecord& earlier, Plan& plan);
    void carryOut(const InterfaceRequest& request, Plan& plan);
    [[noreturn]] void refuse(const NetlinkFailure& failure, const InterfaceRequest& request,
                             const InterfaceRecord& added);
    void rollBack(const std::string& subject, const Plan& plan, const InterfaceRecord& earlier);
    void rollBackDns(const Plan& plan, const InterfaceRecord& earlier);
    void commitUndoLog(const std::string& subject, const Plan& plan, const InterfaceRecord& earlier);

    void forget(const std::string& subject, const InterfaceRecord& record);
    InterfaceRecord pendingPart(const InterfaceRecord& record) const;
    std::function<bool()> recordCheck(const std::string& ifName, const std::string& dns) const;

    void removeInstalled(const InterfaceRecord& record);

    UndoLog& mUndoLog;
    GuardControl& mGuards;
    NetlinkSocket mSocket;
    InstalledConfiguration mInstalled{mSocket};
    Dns mDns;
};

}  // namespace vknetconfig

#endif
