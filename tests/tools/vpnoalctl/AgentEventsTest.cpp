// SPDX-License-Identifier: Apache-2.0
#include "tunnel/AgentEvents.h"

#include <gmock/gmock.h>
#include <poll.h>

#include <thread>
#include <vector>

#include "tunnel/StderrCallbacks.h"

namespace vpnoalctl {
namespace {

using testing::ElementsAre;

bool isReadable(const AgentEvents& events)
{
    pollfd watched{events.descriptor(), POLLIN, 0};
    return poll(&watched, 1, 0) == 1;
}

std::vector<AgentEvent> allOf(AgentEvents& events)
{
    std::vector<AgentEvent> taken;
    while (const auto event = events.take())
        taken.push_back(*event);
    return taken;
}

TEST(AgentEventsTest, DescriptorTellsWhileSomethingWaits)
{
    AgentEvents events;
    EXPECT_FALSE(isReadable(events));
    events.OnPowerSuspended();
    events.OnPowerResume();
    EXPECT_TRUE(isReadable(events));
    events.take();
    EXPECT_TRUE(isReadable(events));
    events.take();
    EXPECT_FALSE(isReadable(events));
    EXPECT_TRUE(events.isEmpty());
}

TEST(AgentEventsTest, OrderIsKeptAndConfigurationIsNoNews)
{
    AgentEvents events;
    events.OnConnectionChange(0);
    events.OnConfigurationChange();
    events.OnPowerSuspended();
    events.OnPowerResume();
    EXPECT_THAT(allOf(events), ElementsAre(AgentEvent::NetworkChanged, AgentEvent::Suspended, AgentEvent::Resumed));
}

TEST(AgentEventsTest, OnlyNetworkChangesAreForgotten)
{
    AgentEvents events;
    events.OnConnectionChange(0);
    events.OnPowerSuspended();
    events.OnConnectionChange(0);
    events.forgetNetworkChanges();
    EXPECT_TRUE(isReadable(events));
    EXPECT_THAT(allOf(events), ElementsAre(AgentEvent::Suspended));
    events.OnConnectionChange(0);
    events.forgetNetworkChanges();
    EXPECT_FALSE(isReadable(events));
}

TEST(AgentEventsTest, NothingIsLostBetweenThreads)
{
    AgentEvents events;
    constexpr int each = 20000;
    std::thread other([&events] {
        for (int i = 0; i < each; ++i)
            events.OnConnectionChange(0);
    });
    int taken = 0;
    while (taken < each) {
        pollfd watched{events.descriptor(), POLLIN, 0};
        ASSERT_EQ(1, poll(&watched, 1, 10000));
        while (events.take())
            ++taken;
    }
    other.join();
    EXPECT_TRUE(events.isEmpty());
    EXPECT_FALSE(isReadable(events));
}

std::string toldBy(bool enabled)
{
    StderrCallbacks callbacks(enabled);
    testing::internal::CaptureStderr();
    callbacks.OnPowerSuspended();
    callbacks.OnPowerResume();
    callbacks.OnConnectionChange(1);
    callbacks.OnConfigurationChange();
    return testing::internal::GetCapturedStderr();
}

TEST(StderrCallbacksTest, EachCallIsALineWhereThatIsWanted)
{
    EXPECT_EQ(
        "the device is about to sleep\nthe device is awake again\nthe physical network changed\n"
        "the tunnel's configuration changed\n",
        toldBy(true));
    EXPECT_EQ("", toldBy(false));
}

}  // namespace
}  // namespace vpnoalctl
