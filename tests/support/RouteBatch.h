// SPDX-License-Identifier: Apache-2.0
//
// Fills the namespace's routing table quickly: routes go to the kernel many at a time, over a socket of its own.
#ifndef WFOAL_TEST_ROUTEBATCH_H
#define WFOAL_TEST_ROUTEBATCH_H

#include <linux/rtnetlink.h>

#include <cstdint>
#include <string>
#include <vector>

#include "handles/UniqueFd.h"

namespace testsupport {

/// Addresses are in host byte order; 0 leaves a value out.
struct NewRoute {
    struct Hop {
        std::uint32_t gateway;
        std::uint32_t index;
    };

    std::uint32_t destination = 0;
    std::uint8_t prefixLength = 0;
    std::uint32_t table = RT_TABLE_MAIN;
    std::uint8_t type = RTN_UNICAST;
    std::uint32_t index = 0;
    std::uint32_t gateway = 0;
    std::uint32_t priority = 0;
    std::uint32_t preferredSource = 0;
    std::uint32_t mtu = 0;
    std::uint32_t window = 0;
    std::vector<Hop> hops;
};

class RouteBatch {
public:
    RouteBatch();

    void add(const NewRoute& route);
    /// Sends what was added. The number of routes that the kernel refused (such as those that exist already).
    unsigned send();
    /// Takes back every route that was sent.
    void removeAll();

private:
    unsigned transmit(const std::vector<std::string>& bodies, std::uint16_t type, std::uint16_t flags);
    unsigned transmitOne(const std::string& datagram, unsigned count);

    UniqueFd mSocket;
    std::vector<std::string> mWaiting;
    std::vector<std::string> mSent;
};

}  // namespace testsupport

#endif
