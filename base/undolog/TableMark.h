// SPDX-License-Identifier: Apache-2.0
//
// The mark on each table of nftables that the platform installs: a comment. A table without it is another program's.
#ifndef WFOAL_TABLEMARK_H
#define WFOAL_TABLEMARK_H

#include <string>
#include <string_view>

namespace wfoal {

inline constexpr std::string_view tableMark = "vknetconfig";

/// User data of a table that holds the mark.
std::string markedUserData();

/// True when the user data of a table holds a comment that is our mark. `bytes` are as the kernel returns them.
bool bearsMark(std::string_view bytes);

}  // namespace wfoal

#endif
