// SPDX-License-Identifier: Apache-2.0
//
// Messages about a table of ours and its chains.
#ifndef VKNETCONFIG_TABLEMESSAGES_H
#define VKNETCONFIG_TABLEMESSAGES_H

#include <cstdint>
#include <string>

#include "firewall/NftTransaction.h"

namespace vknetconfig {

/// A chain that the kernel runs by itself.
struct BaseChain {
    const char* name;
    std::uint32_t hook;  // NF_INET_...
};

/// A table with our mark. It fails when a table of its name is there.
void addTable(NftTransaction& transaction, const std::string& label);

/// A chain that others jump to.
void addChain(NftTransaction& transaction, const std::string& label, const std::string& chain);

/// A base chain that jumps to `target`, and lets through what no rule decides.
void addBaseChain(NftTransaction& transaction, const std::string& label, const BaseChain& base,
                  const std::string& target);

/// Removes the table with this handle; it fails when that table is not there any more, whatever has its name.
void addTableRemoval(NftTransaction& transaction, std::uint64_t handle);

}  // namespace vknetconfig

#endif
