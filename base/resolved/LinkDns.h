// SPDX-License-Identifier: Apache-2.0
//
// The settings of one link in systemd-resolved, as plain values: those to set, and those to restore.
#ifndef WFOAL_LINKDNS_H
#define WFOAL_LINKDNS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "resolved/DnsSettings.h"

namespace wfoal {

/// A server, maybe one that another program has set: of either family, with a port (0: the default) and a name for TLS.
struct DnsServer {
    int family = 0;
    std::string address;  // 4 or 16 bytes
    std::uint16_t port = 0;
    std::string name;
};

struct DnsDomain {
    std::string name;        // "." is the root
    bool routeOnly = false;  // chooses this link, is not searched
};

struct LinkDns {
    std::vector<DnsServer> servers;
    std::vector<DnsDomain> domains;
    bool defaultRoute = false;  // gets the queries that no link's domains match
};

bool operator==(const DnsServer& left, const DnsServer& right);
bool operator==(const DnsDomain& left, const DnsDomain& right);
bool operator==(const LinkDns& left, const LinkDns& right);

/// Case and a dot at the end do not distinguish names. Repeated names are dropped, as systemd-resolved does.
///
///     domains | all traffic | default route | set beside the domains
///     --------+-------------+---------------+-----------------------
///     any     | yes         | yes           | "~." when there are servers
///     some    | no          | no            |
///     none    | no          | yes           |
LinkDns resolvedSettingsFor(const DnsSettings& settings);

/// The settings that were set on a link, and those before. As text it is one line of words.
struct LinkChange {
    Link link;
    LinkDns set;
    LinkDns before;

    std::string encode() const;
    /// Throws a JsonError with the key "undo log" when the text is malformed.
    static LinkChange decode(std::string_view text);
};

/// What the link should have after the change is undone, given what it has now. For servers, domains and default route
/// separately: the previous value if ours is still in place, otherwise the current one.
LinkDns stateAfterUndo(const LinkChange& change, const LinkDns& now);

}  // namespace wfoal

#endif
