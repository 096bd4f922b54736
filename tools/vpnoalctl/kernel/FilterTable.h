// SPDX-License-Identifier: Apache-2.0
//
// A table of nftables, family inet, as the kernel has it.
#ifndef VPNOALCTL_FILTERTABLE_H
#define VPNOALCTL_FILTERTABLE_H

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace vpnoalctl {

struct PacketCount {
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
};

struct FilterChain {
    std::size_t rules = 0;
    bool rejectsRest = false;  // a rule rejects whatever reaches it
};

struct FilterTable {
    bool isOurs = false;                        // it has the host platform's mark
    std::map<std::string, FilterChain> chains;  // those with a rule
    std::optional<PacketCount> counted;         // what the rules with a counter have counted together
};

/// Asks for a table. 0: it is there, and was handed to `visit`; ENOENT: it is not there; any other errno value:
/// nftables does not answer.
int askForTable(const std::string& name, const std::function<void(const nlmsghdr&)>& visit);

/// None when there is no table of this name. Throws CommandError when nftables does not answer.
std::optional<FilterTable> filterTable(const std::string& name);

}  // namespace vpnoalctl

#endif
