// SPDX-License-Identifier: Apache-2.0
//
// What the kernel says about the network at one moment, as far as the connection manager wants to know.
#ifndef CONMAN_SNAPSHOT_H
#define CONMAN_SNAPSHOT_H

#include <cstdint>
#include <string>
#include <vector>

namespace conman {

struct Link {
    int index = 0;
    std::string name;
    bool up = false;       // administratively
    bool running = false;  // has a carrier, or whatever stands for it

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
    std::vector<Address> addresses;           // that others can reach
    std::vector<DefaultRoute> defaultRoutes;  // of the main table

    bool operator==(const Snapshot& other) const
    {
        return links == other.links && addresses == other.addresses && defaultRoutes == other.defaultRoutes;
    }
};

}  // namespace conman

#endif
