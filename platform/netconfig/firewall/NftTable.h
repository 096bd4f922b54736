// SPDX-License-Identifier: Apache-2.0
//
// Tables of nftables, family inet: which ones are ours.
#ifndef VKNETCONFIG_NFTTABLE_H
#define VKNETCONFIG_NFTTABLE_H

#include <cstdint>
#include <string>

#include "kernel/NetlinkSocket.h"

namespace vknetconfig {

enum class TableState { Absent, Ours, Foreign };

struct TableFound {
    TableState state = TableState::Absent;
    std::uint64_t handle = 0;  // the kernel's number; no later table has it
};

/// Asks the kernel for the table of this name.
TableFound findTable(NetlinkSocket& socket, const std::string& name);

}  // namespace vknetconfig

#endif
