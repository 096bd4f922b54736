// SPDX-License-Identifier: Apache-2.0
//
// A way to set the DNS of a link, such as systemd-resolved. Requests use Dns (Dns.h), which chooses one. Used on one
// thread at a time. Failures throw a RequestError with the key "ipv4.dns" within a few seconds.
#ifndef VKNETCONFIG_DNSBACKEND_H
#define VKNETCONFIG_DNSBACKEND_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "resolved/DnsSettings.h"

namespace vknetconfig {

using wfoal::DnsSettings;
using wfoal::Link;

class DnsBackend {
public:
    /// Whether settings are still to be maintained. Called on any thread; empty: always.
    using IsWanted = std::function<bool()>;

    virtual ~DnsBackend() = default;

    /// A request with DNS settings begins: what takes time may be started, so that it goes on beside other work.
    virtual void begin() {}

    /// The request ends, maybe before anything was set.
    virtual void end() {}

    /// Whether it works here for this link: does the service answer, does the tool run.
    virtual bool works(const Link& link) = 0;

    /// Returns what undo() needs, in one line. Changes nothing. `earlier` are the lines of the settings of which one is
    /// installed on this link now.
    virtual std::string prepare(const Link& link, const DnsSettings& settings,
                                const std::vector<std::string>& earlier) = 0;

    /// Installs the settings in place of those the link had, and maintains them. A failure leaves those it had.
    virtual void set(const Link& link, const DnsSettings& settings, IsWanted isWanted) = 0;

    /// Installs the settings of a line again, where the line holds them.
    virtual void setAgain(std::string_view prepared, IsWanted isWanted) = 0;

    /// Stops maintaining the settings, and restores what the link had before where it still has them. A link or tool
    /// that is gone is no failure. False when that is pending until a service comes back.
    virtual bool undo(std::string_view prepared) = 0;
};

}  // namespace vknetconfig

#endif
