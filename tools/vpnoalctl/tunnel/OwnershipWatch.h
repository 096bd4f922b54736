// SPDX-License-Identifier: Apache-2.0
//
// Notices when another process removes this process's tunnel configuration with 'vpnoalctl restore --force': then the
// platform's lock files are gone. They are never opened, because closing them would release the locks.
#ifndef VPNOALCTL_OWNERSHIPWATCH_H
#define VPNOALCTL_OWNERSHIPWATCH_H

#include <sys/types.h>

#include <map>
#include <string>

#include "handles/UniqueFd.h"

namespace vpnoalctl {

class OwnershipWatch {
public:
    /// Watches what this process has configured by now. With a platform without such locks, check() never
    /// throws. Throws CommandError.
    OwnershipWatch();

    /// Readable when something changed: time to call check().
    int descriptor() const { return mNotices.get(); }
    /// Throws CommandError once the configuration, or a part of it, was removed. Empties the descriptor.
    void check() const;

private:
    UniqueFd mNotices;
    std::map<std::string, ino_t> mLocks;  // by path
};

}  // namespace vpnoalctl

#endif
