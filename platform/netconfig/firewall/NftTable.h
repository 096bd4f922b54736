// SPDX-License-Identifier: Apache-2.0
//
// Tables of nftables, family inet: which ones are ours.
#ifndef VKNETCONFIG_NFTTABLE_H
#define VKNETCONFIG_NFTTABLE_H

#include <cstdint>
#include <string>
#include <string_view>

#include "kernel/NetlinkSocket.h"

namespace vknetconfig {

/// The comment on each table of ours. A table without it is another program's.
inline constexpr std::string_view tableMark = "vknetconfig";

enum class TableState { Absent, Ours, Foreign };

struct TableFound {
    TableState state = TableState::Absent;
    std::uint64_t handle = 0;  // the kernel's number; no later table has it
};

/// Asks the kernel for the table of this name.
TableFound findTable(NetlinkSocket& socket, const std::string& name);

/// User data of a table that holds the mark.
std::string markedUserData();

/// True when the user data of a table holds a comment that is our mark. `bytes` are as the kernel returns them.
bool bearsMark(std::string_view bytes);

}  // namespace vknetconfig

#endif
