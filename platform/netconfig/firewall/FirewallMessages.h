// SPDX-License-Identifier: Apache-2.0
//
// A packet filter as messages of nftables. The table bears the label and the mark. The rules are in a chain of the
// request's name. Each base chain jumps there and lets through what no rule decides. A rule with a port and no
// protocol becomes two: one for TCP, one for UDP.
#ifndef VKNETCONFIG_FIREWALLMESSAGES_H
#define VKNETCONFIG_FIREWALLMESSAGES_H

#include <cstdint>
#include <string>
#include <vector>

#include "firewall/FirewallRequest.h"
#include "firewall/NftTransaction.h"

namespace vknetconfig {

class FirewallMessages {
public:
    /// Adds the filter, which fails when a table of its name is there. Keeps no reference to the request.
    FirewallMessages(NftTransaction& transaction, const FirewallRequest& request);

    /// The part of the request that a message of the transaction stands for: "rules[3]".
    std::string subjectOf(std::size_t index) const;
    /// True when a refusal of the message means that the tables have changed since they were read.
    bool isAboutTables(std::size_t index) const { return index != 0 && index <= mTable; }

private:
    std::size_t mTable;               // the message that makes the table
    std::vector<std::size_t> mRules;  // the first message of each rule
    std::size_t mBaseChains;          // the first message after the rules
};

}  // namespace vknetconfig

#endif
