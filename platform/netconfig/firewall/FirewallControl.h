// SPDX-License-Identifier: Apache-2.0
//
// Puts packet filters in force and removes them, each as one transaction of the kernel. That a table is, or may be,
// there is first written to the journal. Tables without our mark are never touched. Used under the library's one
// mutex, within a turn of the journal. Failures throw a RequestError that names the key or the step.
#ifndef VKNETCONFIG_FIREWALLCONTROL_H
#define VKNETCONFIG_FIREWALLCONTROL_H

#include <string>
#include <string_view>

#include "firewall/FirewallRequest.h"
#include "undolog/Journal.h"
#include "kernel/NetlinkSocket.h"
#include "firewall/NftTable.h"

namespace vknetconfig {

class FirewallControl {
public:
    explicit FirewallControl(Journal& journal) : mJournal(journal) {}

    /// Sets up or removes what the request asks for.
    void apply(const FirewallRequest& request);

    /// The subject of the journal for a label.
    static std::string subjectOf(std::string label);
    /// True for subjects of the journal that stand for a packet filter.
    static bool isSubject(std::string_view subject);
    /// Removes what a dead process left.
    void removeLeft(const std::string& subject);

private:
    void setUp(const FirewallRequest& request);
    TableFound findReplaceable(const std::string& label);
    void replace(const FirewallRequest& request, TableFound before);
    void rollBack(const std::string& label);
    void remove(const std::string& label);
    void removeTable(const TableFound& table);

    Journal& mJournal;
    // Stays open, as closing it right after a change waits for the kernel to clean up (5 to 15 ms).
    NetlinkSocket mSocket{NETLINK_NETFILTER, "nftables"};
};

}  // namespace vknetconfig

#endif
