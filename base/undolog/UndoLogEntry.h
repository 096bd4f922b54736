// SPDX-License-Identifier: Apache-2.0
//
// The beginning of an entry of the undo log: the lines "vknetconfig VERSION", "boot UUID" and "namespace ID". The
// content follows them. This library writes version 2. Version 1 named the namespace by its inode, and its files had no
// namespace in their names. Values only; no system call.
#ifndef WFOAL_UNDOLOGENTRY_H
#define WFOAL_UNDOLOGENTRY_H

#include <string>
#include <string_view>

namespace wfoal {

/// Where a process runs.
struct Origin {
    std::string boot;              // as /proc/sys/kernel/random/boot_id has it, without the newline
    std::string networkNamespace;  // see currentNetworkNamespace()
    std::string namespaceInode;    // as version 1 named it; empty unless it was asked for
};

enum class EntryKind {
    None,       // there is no entry
    Here,       // of this boot and network namespace
    Elsewhere,  // of this boot and another network namespace
    OtherBoot,
    Unknown,  // of an unknown version, or not an entry
};

/// The kind of an entry, by its beginning. `content` is the position of the rest.
struct EntryHead {
    EntryKind kind = EntryKind::None;
    int version = 0;
    std::size_t content = 0;
};

EntryHead readEntryHead(std::string_view text, const Origin& origin);

/// The lines that an entry of this origin begins with.
std::string entryHead(const Origin& origin);

/// No head is longer.
inline constexpr std::size_t longestEntryHead = 256;

}  // namespace wfoal

#endif
