// SPDX-License-Identifier: Apache-2.0
//
// DNS of interfaces through the back end that works here: systemd-resolved when it answers, else the resolvconf tool
// when it runs. prepare() chooses it. Used by the requests, under the library's one mutex. Failures throw a
// RequestError with the key "ipv4.dns" within a few seconds.
//
// To install settings: prepare(), write its line to the undo log, set(). To undo them, in this process or a later one:
// undo() with that line, then erase it from the undo log unless it is pending.
#ifndef VKNETCONFIG_DNS_H
#define VKNETCONFIG_DNS_H

#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "dns/DnsBackend.h"

namespace vknetconfig {

class Dns {
public:
    using IsWanted = DnsBackend::IsWanted;

    /// May be held by a request that is going to set DNS: then the connection is made while the request does other
    /// things, and it is closed with the request.
    class Request {
    public:
        explicit Request(Dns& dns) : mDns(dns) { mDns.begin(); }
        Request(const Request&) = delete;
        Request& operator=(const Request&) = delete;
        ~Request() { mDns.end(); }

    private:
        Dns& mDns;
    };

    Dns();
    Dns(const Dns&) = delete;
    Dns& operator=(const Dns&) = delete;

    /// What undo() needs, in one line without a newline; changes nothing. `earlier` are the lines of the settings of
    /// which one is installed on this link now. The new line restores what was there before those.
    std::string prepare(const Link& link, const DnsSettings& settings, const std::vector<std::string>& earlier = {});

    /// Installs the settings with the back end that prepare() chose in `prepared`, and maintains them: when
    /// systemd-resolved restarts they are set again, unless `isWanted`, called on another thread then, returns false.
    void set(const Link& link, const DnsSettings& settings, std::string_view prepared, IsWanted isWanted = {});

    /// Installs the settings of a line again, after a failed set() of another line of the same back end. Lines of
    /// resolvconf do not hold the settings; there a failed set() changes nothing.
    void setAgain(std::string_view prepared, IsWanted isWanted = {});

    /// Whether set() with the line `prepared` replaces the settings of `earlier`; otherwise those must be undone.
    static bool usesSameResolver(std::string_view prepared, std::string_view earlier);

    /// Stops maintaining the link's settings, and restores what was there before them, if the link still has them. A
    /// link or resolver that is gone is no failure. When systemd-resolved may come back with the settings, the undo is
    /// pending.
    void undo(std::string_view prepared);

    /// Whether the last undo() of this line is pending. It is done when systemd-resolved comes back while this object
    /// lives. Otherwise undo() must be called again, so the line must stay in the undo log.
    bool isPending(const std::string& prepared) const { return mPending.count(prepared) != 0; }

private:
    struct NamedBackend {
        std::string_view word;  // lines of this back end begin with it
        std::unique_ptr<DnsBackend> backend;
    };

    void begin();
    void end();

    /// Throws a RequestError with the key "undo log" when no back end has made the line.
    DnsBackend& backendOf(std::string_view prepared) const;

    std::vector<NamedBackend> mBackends;
    std::set<std::string> mPending;
};

}  // namespace vknetconfig

#endif
