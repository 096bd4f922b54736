// SPDX-License-Identifier: Apache-2.0
//
// Reads the kernel's tables of links, addresses and routes.
#ifndef WFOAL_NETLINKDUMP_H
#define WFOAL_NETLINKDUMP_H

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <vector>

namespace wfoal {

struct DumpRequest {
    std::uint16_t type;  // RTM_GETLINK, RTM_GETADDR, RTM_GETROUTE
    std::uint8_t family;
};

/// Dumps the tables one after the other, through a socket of its own, and hands each message to `visit`. A dump during
/// which a table changed is not consistent: then everything is read again, up to ten times. `begin` is called before
/// each attempt. Returns 0 or an errno value.
int dumpTables(const std::vector<DumpRequest>& requests, const std::function<void()>& begin,
               const std::function<void(const nlmsghdr&)>& visit);

}  // namespace wfoal

#endif
