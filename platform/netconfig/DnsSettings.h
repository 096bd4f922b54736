// SPDX-License-Identifier: Apache-2.0
//
// The DNS settings of one link: plain values, and what may stand in them.
#ifndef VKNETCONFIG_DNSSETTINGS_H
#define VKNETCONFIG_DNSSETTINGS_H

#include <netinet/in.h>

#include <string>
#include <string_view>
#include <vector>

namespace vknetconfig {

/// An interface. The index tells it from a later one of the same name.
struct Link {
    int index = 0;
    std::string name;
};

bool operator==(const Link& left, const Link& right);

/// True while the interface of this index still has this name.
bool isPresent(const Link& link);

struct DnsSettings {
    std::vector<in_addr> servers;
    std::vector<std::string> domains;  // faultless ones, see domainFault()
    bool allTraffic = false;           // everything goes into the tunnel, so every question does too

    /// Nothing to set: no resolver is needed.
    bool empty() const { return servers.empty() && domains.empty(); }
};

/// Why the text is no domain name, such as "a label is longer than 63 characters"; empty when it is one. Letters,
/// digits, hyphens and underscores; one dot at the end is allowed.
std::string domainFault(std::string_view domain);

}  // namespace vknetconfig

#endif
