// SPDX-License-Identifier: Apache-2.0
//
// A way to set the DNS of a link, such as systemd-resolved. Requests go through Dns (Dns.h), which picks one. Used on
// one thread at a time. Failures throw a RequestError with the key "ipv4.dns" within a few seconds.
#ifndef VKNETCONFIG_DNSBACKEND_H
#define VKNETCONFIG_DNSBACKEND_H

#include <memory>
#include <string>
#include <string_view>

#include "dns/DnsSettings.h"

namespace vknetconfig {

class DnsBackend {
public:
    virtual ~DnsBackend() = default;

    /// Asks whether it works here: does the service answer, does the tool run.
    virtual bool works() = 0;

    /// Writes down, in one line, what undo() needs. Changes nothing. `earlier` are the lines that prepare()
    /// returned for settings of ours, one of which are installed now.
    virtual std::string prepare(const Link& link, const DnsSettings& settings,
                                const std::vector<std::string>& earlier) = 0;

    /// Installs the settings, in place of those the link had. When it fails the link has those still.
    virtual void set(const Link& link, const DnsSettings& settings) = 0;

    /// Restores what was there before, where the link still has what was set. A link or tool that is gone is no
    /// failure. False when the service is not there now and may come back with the settings.
    virtual bool undo(std::string_view prepared) = 0;
};

}  // namespace vknetconfig

#endif
