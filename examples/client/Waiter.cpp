// SPDX-License-Identifier: Apache-2.0
#include "client/Waiter.h"

#include <poll.h>

#include <algorithm>

namespace sampleclient {

int millisecondsUntil(Waiter::Clock::time_point deadline)
{
    constexpr std::int64_t longest = std::int64_t{3600} * 1000;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Waiter::Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, longest));
}

bool Waiter::waitUntilReady(int descriptor, short wanted, Clock::time_point deadline)
{
    for (;;) {
        pollfd watched[] = {
            {descriptor, wanted, 0}, {mSignals.descriptor(), POLLIN, 0}, {mEvents.descriptor(), POLLIN, 0}};
        poll(watched, 3, millisecondsUntil(deadline));
        if (mSignals.isInterrupted() || !mEvents.isEmpty()) throw Interrupted();
        if (watched[0].revents != 0) return true;
        if (Clock::now() >= deadline) return false;
    }
}

}  // namespace sampleclient
