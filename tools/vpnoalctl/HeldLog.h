// SPDX-License-Identifier: Apache-2.0
//
// Keeps back what is written to stderr, by whatever library of this process, until it is known whether it matters.
#ifndef VPNOALCTL_HELDLOG_H
#define VPNOALCTL_HELDLOG_H

#include "handles/UniqueFd.h"

namespace vpnoalctl {

class HeldLog {
public:
    /// Holds from now on when `wanted`. What cannot be held, for want of descriptors, is printed as ever.
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
