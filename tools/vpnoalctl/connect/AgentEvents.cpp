// SPDX-License-Identifier: Apache-2.0
#include "connect/AgentEvents.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>

#include "CommandError.h"

namespace vpnoalctl {

AgentEvents::AgentEvents() : mWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (!mWake.valid()) throw systemError("eventfd", errno, "free resources and try again");
}

void AgentEvents::put(AgentEvent event)
{
    const std::lock_guard<std::mutex> lock(mLock);
    mEvents.push_back(event);
    // Only a counter that is full already is refused, and that one wakes too.
    static_cast<void>(eventfd_write(mWake.get(), 1));
}

bool AgentEvents::isEmpty()
{
    const std::lock_guard<std::mutex> lock(mLock);
    return mEvents.empty();
}

std::optional<AgentEvent> AgentEvents::take()
{
    const std::lock_guard<std::mutex> lock(mLock);
    if (mEvents.empty()) return std::nullopt;
    const AgentEvent event = mEvents.front();
    mEvents.pop_front();
    settle();
    return event;
}

void AgentEvents::forgetNetworkChanges()
{
    const std::lock_guard<std::mutex> lock(mLock);
    mEvents.erase(std::remove(mEvents.begin(), mEvents.end(), AgentEvent::NetworkChanged), mEvents.end());
    settle();
}

// Called with the lock held: the descriptor tells no more than there is.
void AgentEvents::settle()
{
    eventfd_t count = 0;
    if (mEvents.empty()) static_cast<void>(eventfd_read(mWake.get(), &count));
}

}  // namespace vpnoalctl
