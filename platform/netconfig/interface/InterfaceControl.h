// SPDX-License-Identifier: Apache-2.0
//
// Puts interface configurations in force and takes them back, whole or not at all. What is to be changed is first
// written to the journal; what is taken back is only what is still there and still ours. Used under the library's one
// mutex, within a turn of the journal. Failures throw a RequestError that names the key or the step.
#ifndef VKNETCONFIG_INTERFACECONTROL_H
#define VKNETCONFIG_INTERFACECONTROL_H

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "dns/Dns.h"
#include "interface/InterfaceRecord.h"
#include "interface/InterfaceRequest.h"
#include "undolog/Journal.h"
#include "kernel/NetlinkSocket.h"

namespace vknetconfig {

class InterfaceControl {
public:
    explicit InterfaceControl(Journal& journal) : mJournal(journal) {}

    /// Puts the configuration in force, in place of the one that the interface has from here, or from a process that
    /// has ended. Only the difference is changed. The earlier one stays in force when this one fails.
    void apply(const InterfaceRequest& request);

    /// Takes back what is in force for the interface.
    void remove(const std::string& ifName);

    /// The subject of the journal for an interface.
    static std::string subjectOf(const std::string& ifName);

    /// True for subjects of the journal that stand for an interface.
    static bool isSubject(std::string_view subject);
    /// Takes back what a dead process left.
    void removeLeft(const std::string& subject);

private:
    /// What a request changes, next to what was in force before it.
    struct Plan {
        InterfaceRecord wanted;   // in force afterwards
        InterfaceRecord added;    // not in force yet
        InterfaceRecord dropped;  // no longer wanted
        bool hasDnsBegun = false;
    };

    void replace(const InterfaceRequest& request, const std::string& subject, InterfaceRecord& earlier);
    InterfaceRecord installedPart(InterfaceRecord record);
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
    void settle(const std::string& subject, const Plan& plan, const InterfaceRecord& earlier);

    void forget(const std::string& subject, const InterfaceRecord& record);
    InterfaceRecord pendingPart(const InterfaceRecord& record) const;
    std::function<bool()> recordCheck(const std::string& ifName, const std::string& dns) const;

    std::optional<NetlinkFailure> put(const InterfaceRecord& record);
    InterfaceRecord missingOf(const InterfaceRecord& record);
    bool isThere(const InterfaceRecord& record);
    void takeBack(const InterfaceRecord& record);
    void takeBackKernelPart(const InterfaceRecord& record);
    void takeBackRoutes(const InterfaceRecord& record);
    void takeBackAddresses(const InterfaceRecord& record);
    void takeBackLink(const InterfaceRecord& record);

    Journal& mJournal;
    NetlinkSocket mSocket;
    Dns mDns;
};

}  // namespace vknetconfig

#endif
