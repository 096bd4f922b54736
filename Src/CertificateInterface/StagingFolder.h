// SPDX-License-Identifier: Apache-2.0
//
// The folder and the file that a bundle is staged in. They lie in /tmp, where anybody may have put something of that
// name before.
#ifndef WFOAL_STAGINGFOLDER_H
#define WFOAL_STAGINGFOLDER_H

#include <cstddef>
#include <string>

#include "handles/UniqueFd.h"
#include "result/Result.h"

namespace wfoal {

/// Makes a folder and those above it where they are missing; `path` ends with a slash. False leaves `errno` set.
bool makeStagingFolder(std::string path);

/// Opens a folder that nobody but root or this user can have prepared. Takes away the others' permission to write when
/// the folder is this user's.
Result<UniqueFd> openStagingFolder(const std::string& path);

/// Opens an empty file of this user, readable by nobody else, for writing. What the name stands for is emptied, but
/// never anybody else's file, nor what a link leads to.
Result<UniqueFd> openStagingFile(const UniqueFd& folder, const std::string& name);

/// Writes `length` bytes and closes the file. `accepted` counts what was taken of them, block by block: also the block
/// that could not be written. False leaves `errno` set.
bool writeStagingFile(UniqueFd file, const unsigned char* data, std::size_t length, std::size_t& accepted);

}  // namespace wfoal

#endif
