// SPDX-License-Identifier: Apache-2.0
//
// Where the agent's abstract file locations lie, and what a file's status is there.
#ifndef WFOAL_STORAGELOCATIONS_H
#define WFOAL_STORAGELOCATIONS_H

#include <sys/stat.h>

#include <string>

#include "kest/StoragePlugin.h"

namespace wfoal {

/// Directory of a location, ending in "/"; static. A location outside the table gives "Invalid Location", which is
/// used as a prefix like any other.
const char* locationToStr(KEST_FileLocation location);

/// The directory followed directly by the name, which is not looked into and must not be null.
std::string storagePath(KEST_FileLocation location, const char* name);

/// Status of a file, symbolic links followed. Files of 2 GiB and more have none, as on a 32-bit device.
/// On failure returns false; `status` is zeroed then.
bool fileStatus(const char* path, struct stat& status);
bool fileStatus(int file, struct stat& status);

}  // namespace wfoal

#endif
