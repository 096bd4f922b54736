// SPDX-License-Identifier: Apache-2.0
//
// The callbacks of the power daemon, and the exported power lock.
#include <gmock/gmock.h>
#include <pthread.h>

#include <chrono>
#include <string>

#include "EventThread.h"
#include "EventThreadFixture.h"
#include "FakeCalls.h"
#include "FakePowerd.h"
#include "FakeVkLog.h"
#include "ObjectRegistry.h"
#include "RecordingCallback.h"
#include "SystemInterface.h"

extern "C" {
extern pthread_mutex_t gPowerLock;
}

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;

class PowerCallbacksTest : public eventthread::Fixture {};

TEST_F(PowerCallbacksTest, PrepareSuspendWithoutASystemObjectAgreesAtOnce)
{
    powerPrepareSuspendCallback();
    EXPECT_THAT(fakes::calls(), ElementsAre("PowerdPrepareSuspendAck 1"));
    EXPECT_THAT(ownLog(), ElementsAre("powerPrepareSuspendCallback: Called!"));
}

TEST_F(PowerCallbacksTest, PrepareSuspendTellsTheAgentWaitsASecondAndAgrees)
{
    RecordingCallback agent;
    SystemInterface systemIf;
    systemIf.SetSystemPluginCB(&agent);
    setSystemIfObject(&systemIf);
    fakes::clearLog();
    const auto begin = steady_clock::now();
    powerPrepareSuspendCallback();
    EXPECT_GE(steady_clock::now() - begin, milliseconds(1000));
    EXPECT_THAT(agent.events, ElementsAre("OnPowerSuspended"));
    EXPECT_THAT(fakes::calls(), ElementsAre("g_usleep 1000000", "PowerdPrepareSuspendAck 1"));
    EXPECT_THAT(ownLog(), ElementsAre("powerPrepareSuspendCallback: Called!",
                                      "powerPrepareSuspendCallback: notifyPowerSuspended successful"));
}

TEST_F(PowerCallbacksTest, PrepareSuspendWithANullCallbackStillWaitsAndAgrees)
{
    SystemInterface systemIf;
    setSystemIfObject(&systemIf);
    const auto begin = steady_clock::now();
    powerPrepareSuspendCallback();
    EXPECT_GE(steady_clock::now() - begin, milliseconds(1000));
    EXPECT_THAT(fakes::calls(), ElementsAre("g_usleep 1000000", "PowerdPrepareSuspendAck 1"));
}

/// Enters what it is told in fakes::calls().
struct CallListCallback : RecordingCallback {
    void note(const std::string& event) override { fakes::recordCall(event); }
};

TEST_F(PowerCallbacksTest, PrepareSuspendTellsWaitsLogsAndAgreesInThisOrder)
{
    CallListCallback agent;
    SystemInterface systemIf;
    systemIf.SetSystemPluginCB(&agent);
    setSystemIfObject(&systemIf);
    fakes::recordLogInCalls(true);
    fakes::clearCalls();
    powerPrepareSuspendCallback();
    EXPECT_THAT(
        fakes::calls(),
        ElementsAre("LOG 7 powerPrepareSuspendCallback: Called!", "OnPowerSuspended", "g_usleep 1000000",
                    "LOG 7 powerPrepareSuspendCallback: notifyPowerSuspended successful", "PowerdPrepareSuspendAck 1"));
    systemIf.SetSystemPluginCB(nullptr);
}

TEST_F(PowerCallbacksTest, ResumeIsLoggedDoneWhenTheAgentWasTold)
{
    CallListCallback agent;
    SystemInterface systemIf;
    systemIf.SetSystemPluginCB(&agent);
    setSystemIfObject(&systemIf);
    fakes::recordLogInCalls(true);
    fakes::clearCalls();
    powerResumedCallback();
    EXPECT_THAT(fakes::calls(), ElementsAre("LOG 7 powerResumedCallback: Called. Device Resumed.", "OnPowerResume",
                                            "LOG 7 powerResumedCallback: notifyPowerResume done"));
    systemIf.SetSystemPluginCB(nullptr);
}

TEST_F(PowerCallbacksTest, SuspendedIsOnlyLogged)
{
    RecordingCallback agent;
    SystemInterface systemIf;
    systemIf.SetSystemPluginCB(&agent);
    setSystemIfObject(&systemIf);
    fakes::clearLog();
    powerSuspendedCallback();
    EXPECT_THAT(agent.events, IsEmpty());
    EXPECT_THAT(ownLog(), ElementsAre("powerSuspendedCallback: Called. Device Suspended"));
}

TEST_F(PowerCallbacksTest, ResumeTellsTheAgent)
{
    RecordingCallback agent;
    SystemInterface systemIf;
    systemIf.SetSystemPluginCB(&agent);
    setSystemIfObject(&systemIf);
    fakes::clearLog();
    powerResumedCallback();
    EXPECT_THAT(agent.events, ElementsAre("OnPowerResume"));
    EXPECT_THAT(ownLog(), ElementsAre("powerResumedCallback: Called. Device Resumed.",
                                      "powerResumedCallback: notifyPowerResume done"));
}

TEST_F(PowerCallbacksTest, ResumeWithoutASystemObjectIsOnlyLogged)
{
    powerResumedCallback();
    EXPECT_THAT(ownLog(), ElementsAre("powerResumedCallback: Called. Device Resumed."));
}

TEST_F(PowerCallbacksTest, PowerLockIsExportedAndFree)
{
    ASSERT_TRUE(startQuorIpcHandling());
    EXPECT_EQ(0, pthread_mutex_trylock(&gPowerLock));
    EXPECT_EQ(0, pthread_mutex_unlock(&gPowerLock));
}

}  // namespace
