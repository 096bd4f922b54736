// SPDX-License-Identifier: Apache-2.0
//
// Waiting for one descriptor while the user may interrupt and the plug-in may tell something, which then goes first.
#ifndef VPNOALCTL_WAITER_H
#define VPNOALCTL_WAITER_H

#include <chrono>

#include "connect/AgentEvents.h"
#include "tunnel/Signals.h"

namespace vpnoalctl {

/// Thrown where something was waited for that no longer matters: a signal or an event of the agent waits.
class Interrupted {};

class Waiter {
public:
    using Clock = std::chrono::steady_clock;

    Waiter(Signals& signals, AgentEvents& events) : mSignals(signals), mEvents(events) {}

    /// True when the descriptor became ready for `wanted` (POLLIN, POLLOUT) before the deadline. Throws Interrupted.
    bool waitUntilReady(int descriptor, short wanted, Clock::time_point deadline);

private:
    Signals& mSignals;
    AgentEvents& mEvents;
};

/// Milliseconds until the deadline for poll(), rounded up; 0 when it has passed.
int millisecondsUntil(Waiter::Clock::time_point deadline);

}  // namespace vpnoalctl

#endif
