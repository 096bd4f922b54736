// SPDX-License-Identifier: Apache-2.0
//
// Puts interface configurations in force and takes them back, whole or not at all. What is to be changed is first
// written to the journal; what is taken back is only what is still there and still ours. Used under the library's one
// mutex, within a turn of the journal. Failures throw a RequestError that names the key or the step.
#ifndef VKNETCONFIG_INTERFACECONTROL_H
#define VKNETCONFIG_INTERFACECONTROL_H

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "Dns.h"
#include "InterfaceRecord.h"
#include "InterfaceRequest.h"
#include "Journal.h"
#include "NetlinkSocket.h"

namespace vknetconfig {

class InterfaceControl {
public:
    explicit InterfaceControl(Journal& journal) : mJournal(journal) {}

    /// Puts the configuration in force, in place of the one that the interface has from here. That one stays in force
    /// when this one fails.
    void apply(const InterfaceRequest& request);

    /// Takes back what is in force for the interface, whichever process put it there.
    void remove(const std::string& ifName);

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
    };

    InterfaceRecord takeOver(const std::string& subject);
    LinkState linkFor(const InterfaceRequest& request, InterfaceRecord& earlier);
    Plan plan(const InterfaceRequest& request, const LinkState& link, const InterfaceRecord& earlier);
    void planAddress(const InterfaceRequest& request, const InterfaceRecord& earlier, Plan& plan);
    void planRoutes(const InterfaceRequest& request, const InterfaceRecord& earlier, Plan& plan);
    void planDns(const InterfaceRequest& request, const InterfaceRecord& earlier, Plan& plan);
    void carryOut(const InterfaceRequest& request, const Plan& plan);
    [[noreturn]] void refuse(const NetlinkFailure& failure, const InterfaceRequest& request,
                             const InterfaceRecord& added);
    void rollBack(const std::string& subject, const Plan& plan, const InterfaceRecord& earlier);
    void settle(const std::string& subject, const Plan& plan, const InterfaceRecord& earlier);

    std::optional<NetlinkFailure> put(const InterfaceRecord& record);
    InterfaceRecord missingOf(const InterfaceRecord& record);
    void takeBack(const InterfaceRecord& record);
    void takeBackRoutes(const InterfaceRecord& record);
    void takeBackAddresses(const InterfaceRecord& record);
    void takeBackLink(const InterfaceRecord& record);

    Journal& mJournal;
    NetlinkSocket mSocket;
    Dns mDns;
    std::map<std::string, DnsSettings> mDnsInForce;  // by subject: what to set again after a failed replacement
};

}  // namespace vknetconfig

#endif
