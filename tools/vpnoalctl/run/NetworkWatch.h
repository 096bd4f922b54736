// SPDX-License-Identifier: Apache-2.0
//
// Notices that a network device, an IPv4 address or a route has changed, whichever.
#ifndef VPNOALCTL_NETWORKWATCH_H
#define VPNOALCTL_NETWORKWATCH_H

#include "handles/UniqueFd.h"

namespace vpnoalctl {

class NetworkWatch {
public:
    /// Throws CommandError.
    NetworkWatch();

    /// Readable when something changed.
    int descriptor() const { return mNotices.get(); }
    /// True when something changed since the last call. Empties the descriptor.
    bool takeChange() const;

private:
    UniqueFd mNotices;
};

}  // namespace vpnoalctl

#endif
