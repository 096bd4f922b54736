// SPDX-License-Identifier: Apache-2.0
//
// Whether to notify the agent of a network change: a pure function of what the connection manager reports and of the
// interface that the agent's socket is bound to.
#ifndef WFOAL_NETWORKDECISION_H
#define WFOAL_NETWORKDECISION_H

#include <string>

namespace wfoal {

/// One network as the connection manager reports it. Both false: unknown.
struct NetworkFlags {
    bool connected = false;      // up, and on the internet
    bool notOnInternet = false;  // down, or up but reported as not on the internet

    bool operator==(const NetworkFlags& other) const
    {
        return connected == other.connected && notOnInternet == other.notOnInternet;
    }
};

struct NetworkDecision {
    bool sendNwCng;
    const char* reason;  // for the log; null when nothing is logged

    bool operator==(const NetworkDecision& other) const;
};

/// The two texts of a section, null where the section or the value is missing.
NetworkFlags networkFlags(const char* state, const char* onInternet);

/// `boundName` is empty when the socket is not bound.
NetworkDecision decideNetworkChange(const NetworkFlags& wifi, const NetworkFlags& wan, const std::string& boundName);

}  // namespace wfoal

#endif
