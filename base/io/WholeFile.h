// SPDX-License-Identifier: Apache-2.0
//
// Reads and writes files as a whole, also where the system does it in pieces or is interrupted by signals. The reason
// of a failure is the text of the errno value alone.
#ifndef WFOAL_WHOLEFILE_H
#define WFOAL_WHOLEFILE_H

#include <string>
#include <string_view>

#include "result/Result.h"

namespace wfoal {

/// From the file's position to its end, `most` bytes at most.
Result<std::string> readWhole(int file, std::size_t most = std::string::npos);
Result<std::string> readWhole(const std::string& path, std::size_t most = std::string::npos);

Check writeWhole(int file, std::string_view bytes);

/// The fault that errno names.
Fault systemFault();

}  // namespace wfoal

#endif
