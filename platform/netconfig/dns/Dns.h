// SPDX-License-Identifier: Apache-2.0
//
// DNS of interfaces, whichever resolver the machine has: systemd-resolved when it answers, else the resolvconf tool
// when it runs. Choosing is done anew for each set-up. Used by the requests, under the library's one mutex. Failures
// throw a RequestError with the key "ipv4.dns" within a few seconds.
//
// To install settings: prepare(), write its line to the undo log, set(). To undo them, in this process or a later one:
// undo() with that line, then erase it from the undo log unless it is pending.
#ifndef VKNETCONFIG_DNS_H
#define VKNETCONFIG_DNS_H

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "dns/DnsBackend.h"

namespace vknetconfig {

class DnsWatcher;

class Dns {
public:
    Dns();
    ~Dns();
    Dns(const Dns&) = delete;
    Dns& operator=(const Dns&) = delete;

    /// What undo() needs, in one line without a newline; changes nothing. `earlier` are the lines of the settings of
    /// which one is installed on this link now: what was there before them is carried over.
    std::string prepare(const Link& link, const DnsSettings& settings, const std::vector<std::string>& earlier = {});

    /// Installs the settings with the resolver that prepare() chose in `prepared`, and looks after them from now
    /// on: when systemd-resolved restarts they are set again, unless `isWanted`, called on another thread then, returns
    /// false. Empty: always wanted.
    void set(const Link& link, const DnsSettings& settings, std::string_view prepared,
             std::function<bool()> isWanted = {});

    /// Installs the settings of a line again, which those of another line of the same resolver have replaced, or
    /// may have. Where a line does not hold them, with resolvconf, nothing is changed: there a set() that fails keeps
    /// what was there.
    void setAgain(std::string_view prepared, std::function<bool()> isWanted = {});

    /// Whether set() with the line `prepared` takes the place of the settings of `earlier`; else those are to be
    /// undone.
    static bool usesSameResolver(std::string_view prepared, std::string_view earlier);

    /// Stops looking after the link's settings and brings back what was there before them, if the link still has
    /// them. A link or resolver that is gone is no failure; when systemd-resolved may come back with the settings, they
    /// are pending.
    void undo(std::string_view prepared);

    /// Whether the last undo() of this line is still to be done. It is done when systemd-resolved comes back while this
    /// object lives. Otherwise undo() is to be called again, so the line must stay in the undo log.
    bool isPending(const std::string& prepared) const { return mPending.count(prepared) != 0; }

private:
    std::unique_ptr<DnsWatcher> mWatcher;
    std::set<std::string> mPending;
};

}  // namespace vknetconfig

#endif
