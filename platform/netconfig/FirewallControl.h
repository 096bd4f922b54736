// SPDX-License-Identifier: Apache-2.0
//
// Puts packet filters in force and removes them, each as one transaction of the kernel. That a table is, or may be,
// there is first written to the journal. Tables without our mark are never touched. Used under the library's one
// mutex, within a turn of the journal. Failures throw a RequestError that names the key or the step.
#ifndef VKNETCONFIG_FIREWALLCONTROL_H
#define VKNETCONFIG_FIREWALLCONTROL_H

#include <string>
#include <string_view>

#include "FirewallRequest.h"
#include "Journal.h"
#include "NftSession.h"

namespace vknetconfig {

class FirewallControl {
public:
    explicit FirewallControl(Journal& journal) : mJournal(journal) {}

    /// Opens what the first request would have to wait for.
    void warmUp() noexcept { mSession.warmUp(); }

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
    void rollBack(const std::string& label);
    void remove(const std::string& label);
    void refuseKeywords(const FirewallRequest& request);

    Journal& mJournal;
    NftSession mSession;
};

}  // namespace vknetconfig

#endif
