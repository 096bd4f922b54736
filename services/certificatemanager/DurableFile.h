// SPDX-License-Identifier: Apache-2.0
//
// Files that are there whole or not at all, also after a power cut.
#ifndef CERTIFICATEMANAGER_DURABLEFILE_H
#define CERTIFICATEMANAGER_DURABLEFILE_H

#include <string>

namespace certificatemanager {

/// Writes `text` as `folder` + `name` with mode 0600 and syncs file and folder. The file gets its name when it is
/// complete. False with errno set on failure, which leaves nothing behind.
bool writeDurably(const std::string& folder, const std::string& name, const std::string& text);

/// Removes what a process that died in writeDurably() left in the folder. Returns how many files that were. No other
/// process may be writing there.
unsigned removeInterrupted(const std::string& folder);

}  // namespace certificatemanager

#endif
