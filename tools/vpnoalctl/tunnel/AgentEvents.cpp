// SPDX-License-Identifier: Apache-2.0
#include "tunnel/AgentEvents.h"

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
    // A write fails only when the counter is full, and a full counter wakes the agent too.
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
    updateDescriptor();
    return event;
}

void AgentEvents::forgetNetworkChanges()
{
    const std::lock_guard<std::mutex> lock(mLock);
    mEvents.erase(std::remove(mEvents.begin(), mEvents.end(), AgentEvent::NetworkChanged), mEvents.end());
    updateDescriptor();
}

// Called with the lock held: an empty queue makes the descriptor unreadable.
void AgentEvents::updateDescriptor()
{
    eventfd_t count = 0;
    if (mEvents.empty()) static_cast<void>(eventfd_read(mWake.get(), &count));
}

}  // namespace vpnoalctl
