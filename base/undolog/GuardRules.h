// SPDX-License-Identifier: Apache-2.0
//
// What a guard lets through beside the tunnel, as plain values: the content of its entry in the undo log.
#ifndef WFOAL_GUARDRULES_H
#define WFOAL_GUARDRULES_H

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "settings/PlatformSettings.h"

namespace wfoal {

/// The far end of a socket that the agent has connected.
template <class Network>
struct Connection {
    std::uint8_t protocol = 0;  // IPPROTO_TCP or IPPROTO_UDP
    std::uint16_t port = 0;     // host order
    Network address;            // one host
    bool operator==(const Connection& other) const
    {
        return protocol == other.protocol && port == other.port && address == other.address;
    }
};

struct GuardRules {
    std::string ifName;  // the tunnel
    bool rejectsIpv4 = false;
    bool rejectsIpv6 = false;
    BypassNetworks bypass;
    std::vector<Connection<Ipv4Network>> ipv4Connections;
    std::vector<Connection<Ipv6Network>> ipv6Connections;

    std::string encode() const;
    /// Throws a JsonError with the key "undo log" when the text is malformed.
    static GuardRules decode(std::string_view text);
};

}  // namespace wfoal

#endif
