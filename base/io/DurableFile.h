// SPDX-License-Identifier: Apache-2.0
//
// Files that exist whole or not at all, also after a crash or a power failure.
#ifndef WFOAL_DURABLEFILE_H
#define WFOAL_DURABLEFILE_H

#include <string>
#include <string_view>

#include "result/Result.h"

namespace wfoal {

/// Makes `content` the file `name`, mode 0600, of the open `folder`. The file gets its name when it is written and
/// synced; a file that has the name already is then replaced. `aside` is a name for the meantime, for file systems that
/// need one and for replacing. A process that is killed may leave that file; the next call removes it.
///
/// The reason of a failure begins with the step: "write: No space left on device". Then an earlier file stays, and no
/// new one does. Only if the folder itself cannot be synced has an earlier file been replaced.
Check writeDurably(int folder, const std::string& name, const std::string& aside, std::string_view content);

}  // namespace wfoal

#endif
