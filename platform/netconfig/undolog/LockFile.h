// SPDX-License-Identifier: Apache-2.0
//
// Locks of the process on files of the undo log. Failures throw a RequestError with the key "undo log".
#ifndef VKNETCONFIG_LOCKFILE_H
#define VKNETCONFIG_LOCKFILE_H

#include <sys/types.h>

#include <string>

namespace vknetconfig {

/// Locks the open file; false when another process holds the lock. A child of fork does not have it, not even before it
/// executes another program, and it ends with the process. It also ends when the process closes any descriptor of the
/// file, so a file that is locked must not be opened a second time.
bool lockNow(int file);

/// The same with a file that is open for reading only, as on a disk that cannot be written; there no process writes.
bool lockToRead(int file);

/// Writes this process's id into the open lock file.
void nameHolder(int file);

/// Whether the open file is the one of this name in the folder.
bool isLinked(int file, int folder, const std::string& name);

/// Whether nobody has written an id into the open lock file.
bool isEmpty(int file);

/// "process 4711"; without a number "another process".
std::string holderText(pid_t holder);

}  // namespace vknetconfig

#endif
