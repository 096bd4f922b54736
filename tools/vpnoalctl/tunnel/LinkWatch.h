// SPDX-License-Identifier: Apache-2.0
//
// Notices when a network device disappears. On the device's own descriptor only read() shows that.
#ifndef VPNOALCTL_LINKWATCH_H
#define VPNOALCTL_LINKWATCH_H

#include "handles/UniqueFd.h"

namespace vpnoalctl {

class LinkWatch {
public:
    /// Watches the device that has this name now. Throws CommandError.
    explicit LinkWatch(const char* name);

    /// Readable when some device changed: time to ask isGone().
    int descriptor() const { return mNotices.get(); }
    /// True once the device is gone, also when another one has its name. Empties the descriptor.
    bool isGone() const;

private:
    UniqueFd mNotices;
    unsigned int mIndex;
};

}  // namespace vpnoalctl

#endif
