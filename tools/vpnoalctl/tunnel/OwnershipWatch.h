// SPDX-License-Identifier: Apache-2.0
//
// Notices when another process takes this process's tunnel configuration away, with 'vpnoalctl restore --force': the
// platform's locks on it are removed then. The locks are never opened, as closing them again would end them.
#ifndef VPNOALCTL_OWNERSHIPWATCH_H
#define VPNOALCTL_OWNERSHIPWATCH_H

#include <sys/types.h>

#include <map>
#include <string>

#include "handles/UniqueFd.h"

namespace vpnoalctl {

class OwnershipWatch {
public:
    /// Watches what this process has configured by now. Where the platform keeps no such locks, nothing is ever lost.
    /// Throws CommandError.
    OwnershipWatch();

    /// Readable when something changed: time to call check().
    int descriptor() const { return mNotices.get(); }
    /// Throws CommandError once the configuration, or a part of it, was taken. Takes what waits.
    void check() const;

private:
    UniqueFd mNotices;
    std::map<std::string, ino_t> mLocks;  // by path
};

}  // namespace vpnoalctl

#endif
