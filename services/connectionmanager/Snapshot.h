// SPDX-License-Identifier: Apache-2.0
//
// The links, IPv4 addresses and default routes that the kernel has at one moment.
#ifndef CONNECTIONMANAGER_SNAPSHOT_H
#define CONNECTIONMANAGER_SNAPSHOT_H

#include <cstdint>
#include <string>
#include <vector>

namespace connectionmanager {

struct Link {
    int index = 0;
    std::string name;
    bool up = false;       // administratively
    bool running = false;  // has a carrier, or its equivalent

    bool operator==(const Link& other) const
    {
        return index == other.index && name == other.name && up == other.up && running == other.running;
    }
};

struct Address {
    int linkIndex = 0;
    std::string text;  // IPv4, dotted

    bool operator==(const Address& other) const { return linkIndex == other.linkIndex && text == other.text; }
};

struct DefaultRoute {
    int linkIndex = 0;
    std::uint32_t priority = 0;

    bool operator==(const DefaultRoute& other) const
    {
        return linkIndex == other.linkIndex && priority == other.priority;
    }
};

/// Each in the kernel's order.
struct Snapshot {
    std::vector<Link> links;
    std::vector<Address> addresses;           // with a scope beyond the link
    std::vector<DefaultRoute> defaultRoutes;  // of the main table
};

}  // namespace connectionmanager

#endif
