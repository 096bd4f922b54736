// SPDX-License-Identifier: Apache-2.0
//
// A guard as messages of nftables: a table whose one chain lets through what may leave beside the tunnel and rejects
// the rest. Base chains for what the device sends and for what it forwards jump there.
#ifndef VKNETCONFIG_GUARDMESSAGES_H
#define VKNETCONFIG_GUARDMESSAGES_H

#include <cstddef>
#include <string>

#include "firewall/NftTransaction.h"
#include "undolog/GuardRules.h"

namespace vknetconfig {

using wfoal::GuardRules;

class GuardMessages {
public:
    /// Adds the table, which fails when one of its name is there. Keeps no reference to the rules.
    GuardMessages(NftTransaction& transaction, const GuardRules& rules);

    /// What a message of the transaction stands for, as a person would say it.
    std::string subjectOf(std::size_t index) const;
    /// True when the message is about which tables there are: what was seen before is no longer so.
    bool isAboutTables(std::size_t index) const { return index != 0 && index <= mTable; }

private:
    std::size_t mTable;  // the message that makes the table
};

}  // namespace vknetconfig

#endif
