// SPDX-License-Identifier: Apache-2.0
//
// The agent's callback record as a queue: the plug-in calls it on its event thread, which must not wait for the agent,
// and the agent takes the events on its own thread when its descriptor becomes readable.
#ifndef VPNOALCTL_AGENTEVENTS_H
#define VPNOALCTL_AGENTEVENTS_H

#include <deque>
#include <mutex>
#include <optional>

#include "handles/UniqueFd.h"
#include "kest/SystemPluginCB.h"

namespace vpnoalctl {

enum class AgentEvent { Suspended, Resumed, NetworkChanged };

class AgentEvents : public KEST_SystemPluginCB {
public:
    /// Throws CommandError.
    AgentEvents();

    void OnPowerSuspended() override { put(AgentEvent::Suspended); }
    void OnPowerResume() override { put(AgentEvent::Resumed); }
    void OnConnectionChange(std::uint32_t) override { put(AgentEvent::NetworkChanged); }
    // The agent's own request causes it.
    void OnConfigurationChange() override {}

    /// From any thread.
    void put(AgentEvent event);

    // The rest on the agent's thread.
    /// Readable while an event waits.
    int descriptor() const { return mWake.get(); }
    bool isEmpty();
    std::optional<AgentEvent> take();
    /// Drops network changes that the next connection takes into account anyway.
    void forgetNetworkChanges();

private:
    void updateDescriptor();

    std::mutex mLock;
    std::deque<AgentEvent> mEvents;
    UniqueFd mWake;
};

}  // namespace vpnoalctl

#endif
