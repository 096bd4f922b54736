// SPDX-License-Identifier: Apache-2.0
//
// How an entry of the undo log begins: three lines, "vknetconfig VERSION", "boot UUID" and "namespace ID", and after
// them what the subject's control wrote. Version 2 is written. Version 1 named the namespace by its inode, and its
// files had no namespace in their names. Values only; no system call.
#ifndef VKNETCONFIG_UNDOLOGENTRY_H
#define VKNETCONFIG_UNDOLOGENTRY_H

#include <string>
#include <string_view>

namespace vknetconfig {

/// Where a process runs.
struct Origin {
    std::string boot;              // as /proc/sys/kernel/random/boot_id has it, without the newline
    std::string networkNamespace;  // see currentNetworkNamespace()
    std::string namespaceInode;    // as version 1 named it
};

enum class EntryKind {
    None,       // there is no entry
    Here,       // of this boot and network namespace
    Elsewhere,  // of this boot and another network namespace
    OtherBoot,
    Unknown,  // of a version that is not known here, or no entry at all
};

/// What an entry is, judged by its beginning. `content` is where the rest begins.
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

}  // namespace vknetconfig

#endif
