// SPDX-License-Identifier: Apache-2.0
//
// The power daemon's client on a bus where an ordinary user forges what logind and the bus daemon say.
#include <gmock/gmock.h>

#include "Attacker.h"
#include "Daemons.h"
#include "FakeLogind.h"
#include "LoopThread.h"
#include "powerd.h"

namespace {

using testing::ElementsAre;
using testsupport::ChildProcess;
using testsupport::FakeLogind;
using testsupport::LoopThread;
using testsupport::Mailbox;

Mailbox* sEvents = nullptr;

class ForgedSleepTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (const std::string reason = testsupport::attackerUnavailable(); !reason.empty()) GTEST_SKIP() << reason;
        mBus = testsupport::startSystemBus();
        mLogind = std::make_unique<FakeLogind>();
        sEvents = &mEvents;
        ASSERT_TRUE(PowerdGmainAttach(mThread.loop()));
        ASSERT_TRUE(PowerdClientInit("norva-vpnagentd"));
        PowerdResumeRegister([] { sEvents->put("resume"); });
        PowerdSuspendedRegister([] { sEvents->put("suspended"); });
        PowerdPrepareSuspendRegister([] {
            sEvents->put("prepare");
            PowerdPrepareSuspendAck(true);
        });
        ASSERT_THAT(mLogind->waitForInhibitors(1), ElementsAre("sleep norva-vpnagentd delay"));
    }
    void TearDown() override { PowerdClientDeinit(); }

    ChildProcess mBus;
    std::unique_ptr<FakeLogind> mLogind;
    Mailbox mEvents;
    LoopThread mThread;
};

// logind's own signal comes after the forged one, so that what it brings is the first event.
TEST_F(ForgedSleepTest, SleepIsTakenFromLogindOnly)
{
    testsupport::sendForgedSignal("/org/freedesktop/login1", "org.freedesktop.login1.Manager.PrepareForSleep",
                                  {"boolean:true"});
    EXPECT_TRUE(mLogind->isHeld());
    mLogind->prepareForSleep(false);
    EXPECT_THAT(mEvents.wait(1), ElementsAre("resume"));
}

TEST_F(ForgedSleepTest, ForgedLossOfLogindTakesNeitherInhibitorNorSignals)
{
    testsupport::forgeNameOwnerChanges();
    EXPECT_TRUE(mLogind->isHeld());
    mLogind->prepareForSleep(true);
    EXPECT_THAT(mEvents.wait(2), ElementsAre("prepare", "suspended"));
    EXPECT_THAT(mLogind->waitForInhibitors(1), ElementsAre("sleep norva-vpnagentd delay"));
}

TEST_F(ForgedSleepTest, ForgedOwnerOfLogindsNameIsNotBelieved)
{
    testsupport::forgeNameOwnerChanges(":1.4711");
    mLogind->prepareForSleep(true);
    EXPECT_THAT(mEvents.wait(2), ElementsAre("prepare", "suspended"));
    EXPECT_THAT(mLogind->waitForInhibitors(1), ElementsAre("sleep norva-vpnagentd delay"));
}

}  // namespace
