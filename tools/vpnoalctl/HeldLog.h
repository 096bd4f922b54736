// SPDX-License-Identifier: Apache-2.0
//
// Holds back what any library of this process writes to stderr, until the command knows whether to show it.
#ifndef VPNOALCTL_HELDLOG_H
#define VPNOALCTL_HELDLOG_H

#include "handles/UniqueFd.h"

namespace vpnoalctl {

class HeldLog {
public:
    /// Holds from now on when `wanted`. Without a free descriptor nothing is held.
    explicit HeldLog(bool wanted);
    /// Drops what is still held.
    ~HeldLog();
    HeldLog(const HeldLog&) = delete;
    HeldLog& operator=(const HeldLog&) = delete;

    /// Prints what was held, and holds no more.
    void show();

private:
    void letThrough();

    UniqueFd mStderr;  // the real one while something is held
    UniqueFd mHeld;
};

}  // namespace vpnoalctl

#endif
