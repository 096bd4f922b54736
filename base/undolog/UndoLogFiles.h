// SPDX-License-Identifier: Apache-2.0
//
// The files of the network-configuration library's undo log. The library writes them; tools read them. A subject
// ("interface-norvatun0") of a network namespace has two files, both named SUBJECT@NAMESPACE: the entry, while
// something is installed, and the lock, which the owner holds. The lock file contains the owner's process id as text.
#ifndef WFOAL_UNDOLOGFILES_H
#define WFOAL_UNDOLOGFILES_H

#include <sys/types.h>

#include <string>
#include <string_view>

#include "result/Result.h"
#include "undolog/UndoLogEntry.h"

namespace wfoal {

inline constexpr char undoLogFolder[] = "/run/vknetconfig";
inline constexpr std::string_view entrySuffix = ".journal";
inline constexpr std::string_view lockSuffix = ".lock";
/// Locked by the process whose request is being carried out.
inline constexpr char turnLock[] = "turn";
inline constexpr char namespaceSeparator = '@';

/// The calling thread's network namespace: "c7", the kernel's cookie, which no other namespace gets until the next
/// boot. Kernels before 5.14 have none; there it is "i4026531840", the inode, which a later namespace may get. Empty,
/// with errno set, when the kernel cannot be asked.
std::string currentNetworkNamespace();

/// Where the calling thread runs. `boot` is what an earlier call has found, if there was one.
Result<Origin> currentOrigin(std::string boot = {});

/// The same with the namespace as version 1 named it, which takes a look into /proc.
Result<Origin> withNamespaceInode(Origin origin);

/// The process id in a lock file, 0 when there is none.
pid_t holderIn(int lockFile);

}  // namespace wfoal

#endif
