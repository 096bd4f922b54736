// SPDX-License-Identifier: Apache-2.0
//
// Notices that a network device, an IPv4 address or a route has changed, whichever. The kernel tells that a device goes
// down before it removes the routes through it, and nothing after that: whoever looks at once may still see them. So
// each change is reported once more when the kernel is done.
#ifndef VPNOALCTL_NETWORKWATCH_H
#define VPNOALCTL_NETWORKWATCH_H

#include <chrono>
#include <optional>

#include "handles/UniqueFd.h"

namespace vpnoalctl {

class NetworkWatch {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds settling{100};

    /// Throws CommandError.
    NetworkWatch();

    /// Readable when something changed.
    int descriptor() const { return mNotices.get(); }
    /// When to call takeChange() although the descriptor is not readable.
    std::optional<Clock::time_point> deadline() const { return mLookAgain; }
    /// True when something changed since the last call, and once more when nothing followed for the settling time.
    /// Empties the descriptor.
    bool takeChange(Clock::time_point now);

private:
    UniqueFd mNotices;
    std::optional<Clock::time_point> mLookAgain;
};

}  // namespace vpnoalctl

#endif
