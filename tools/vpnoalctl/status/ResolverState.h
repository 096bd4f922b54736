// SPDX-License-Identifier: Apache-2.0
//
// The DNS settings that the undo log says are set, next to those that the resolver has.
#ifndef VPNOALCTL_RESOLVERSTATE_H
#define VPNOALCTL_RESOLVERSTATE_H

#include <string>
#include <string_view>
#include <vector>

#include "resolved/LinkDns.h"

namespace vpnoalctl {

/// One setting of a link's DNS.
struct DnsSetting {
    const char* kind = "";  // "server", "domain", "default route"
    std::string value;
    bool isThere = false;
};

struct DnsState {
    std::string resolver;  // "systemd-resolved", "resolvconf"; empty when nothing is set
    std::string fault;     // why the settings are not there; empty when the resolver could be asked
    std::vector<DnsSetting> settings;
};

/// What was set, next to what the link has now.
std::vector<DnsSetting> compareDns(const wfoal::LinkDns& set, const wfoal::LinkDns& now);

/// The settings in a file of resolvconf: its lines "nameserver" and "search".
std::vector<DnsSetting> settingsIn(std::string_view resolvconfFile);

/// Asks the resolver of a line of the undo log. Never throws for a resolver that does not answer.
DnsState readDnsState(const std::string& line);

}  // namespace vpnoalctl

#endif
