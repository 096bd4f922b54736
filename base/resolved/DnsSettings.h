// SPDX-License-Identifier: Apache-2.0
//
// The DNS settings of one link, as plain values.
#ifndef WFOAL_DNSSETTINGS_H
#define WFOAL_DNSSETTINGS_H

#include <string>
#include <vector>

#include "net/Ipv4.h"

namespace wfoal {

/// An interface. The index tells it from a later one of the same name.
struct Link {
    int index = 0;
    std::string name;
};

bool operator==(const Link& left, const Link& right);

/// True while the interface of this index still has this name.
bool isPresent(const Link& link);

/// True while there is an interface of this index, whatever its name is now.
bool hasIndex(const Link& link);

struct DnsSettings {
    std::vector<Ipv4Address> servers;
    std::vector<std::string> domains;  // checked names; "~name" is for choosing this link only, not for searching
    bool allTraffic = false;           // all traffic goes into the tunnel, so all queries do

    /// True when there is nothing to set, so that no resolver is needed.
    bool empty() const { return servers.empty() && domains.empty(); }
};

}  // namespace wfoal

#endif
