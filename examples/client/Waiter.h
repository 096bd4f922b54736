// SPDX-License-Identifier: Apache-2.0
//
// Waits for one descriptor. A signal, or an event from the plug-in, ends the wait early.
#ifndef SAMPLECLIENT_WAITER_H
#define SAMPLECLIENT_WAITER_H

#include <chrono>

#include "tunnel/AgentEvents.h"
#include "tunnel/Signals.h"

namespace sampleclient {

/// Thrown when a signal or an event of the agent ends a wait.
class Interrupted {};

class Waiter {
public:
    using Clock = std::chrono::steady_clock;

    Waiter(vpnoalctl::Signals& signals, vpnoalctl::AgentEvents& events) : mSignals(signals), mEvents(events) {}

    /// True when the descriptor became ready for `wanted` (POLLIN, POLLOUT) before the deadline. Throws Interrupted.
    bool waitUntilReady(int descriptor, short wanted, Clock::time_point deadline);

private:
    vpnoalctl::Signals& mSignals;
    vpnoalctl::AgentEvents& mEvents;
};

/// Milliseconds until the deadline for poll(), rounded up; 0 when it has passed.
int millisecondsUntil(Waiter::Clock::time_point deadline);

}  // namespace sampleclient

#endif
