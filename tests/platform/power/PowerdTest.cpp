// SPDX-License-Identifier: Apache-2.0
//
// The power daemon's client against a logind that the test plays, and against elogind.
#include "powerd.h"

#include <gmock/gmock.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "ComesTrue.h"
#include "Daemons.h"
#include "FakeLogind.h"
#include "LoopThread.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;
using testsupport::ChildProcess;
using testsupport::Daemon;
using testsupport::FakeLogind;
using testsupport::LoopThread;
using testsupport::Mailbox;

Mailbox* sEvents = nullptr;
std::atomic<bool> sAgrees{true};

void onResume()
{
    sEvents->put("resume");
}

void onSuspended()
{
    sEvents->put("suspended");
}

void onPrepare()
{
    sEvents->put("prepare");
    if (sAgrees) PowerdPrepareSuspendAck(true);
}

class PowerdTest : public testing::Test {
protected:
    void SetUp() override
    {
        mBus = testsupport::startBus();
        sEvents = &mEvents;
        sAgrees = true;
    }
    void TearDown() override { EXPECT_TRUE(PowerdClientDeinit()); }

    void startClient()
    {
        EXPECT_TRUE(PowerdGmainAttach(mThread.loop()));
        EXPECT_TRUE(PowerdClientInit("norva-vpnagentd"));
        EXPECT_TRUE(PowerdResumeRegister(onResume));
        EXPECT_TRUE(PowerdSuspendedRegister(onSuspended));
        EXPECT_TRUE(PowerdPrepareSuspendRegister(onPrepare));
    }

    ChildProcess mBus;
    Mailbox mEvents;
    LoopThread mThread;
};

TEST_F(PowerdTest, SuspendAndResumeRunThroughTheirSteps)
{
    FakeLogind logind;
    startClient();
    EXPECT_THAT(logind.waitForInhibitors(1), ElementsAre("sleep norva-vpnagentd delay"));
    EXPECT_TRUE(logind.isHeld());
    logind.prepareForSleep(true);
    EXPECT_TRUE(logind.waitForRelease());
    EXPECT_THAT(mEvents.all(), ElementsAre("prepare", "suspended"));
    logind.prepareForSleep(false);
    EXPECT_THAT(mEvents.wait(3), ElementsAre("prepare", "suspended", "resume"));
    logind.waitForInhibitors(2);
    EXPECT_TRUE(logind.isHeld());
}

TEST_F(PowerdTest, InhibitorIsHeldUntilTheAgreementWhichMayComeFromAnyThread)
{
    FakeLogind logind;
    startClient();
    logind.waitForInhibitors(1);
    sAgrees = false;
    logind.prepareForSleep(true);
    EXPECT_THAT(mEvents.wait(1), ElementsAre("prepare"));
    PowerdPrepareSuspendAck(false);
    mThread.call([] {});
    EXPECT_TRUE(logind.isHeld());
    EXPECT_THAT(mEvents.all(), ElementsAre("prepare"));
    PowerdPrepareSuspendAck(true);
    EXPECT_TRUE(logind.waitForRelease());
    EXPECT_THAT(mEvents.all(), ElementsAre("prepare", "suspended"));
    PowerdPrepareSuspendAck(true);  // once is enough
    mThread.call([] {});
    EXPECT_THAT(mEvents.all(), ElementsAre("prepare", "suspended"));
}

TEST_F(PowerdTest, WithoutAPrepareCallbackNothingHoldsTheDeviceUp)
{
    FakeLogind logind;
    startClient();
    PowerdPrepareSuspendRegister(nullptr);
    logind.waitForInhibitors(1);
    logind.prepareForSleep(true);
    EXPECT_TRUE(logind.waitForRelease());
    EXPECT_THAT(mEvents.all(), ElementsAre("suspended"));
}

TEST_F(PowerdTest, LogindThatAppearsLaterIsPickedUp)
{
    startClient();
    mThread.call([] {});
    FakeLogind logind;
    EXPECT_THAT(logind.waitForInhibitors(1), ElementsAre("sleep norva-vpnagentd delay"));
    logind.prepareForSleep(true);
    EXPECT_TRUE(logind.waitForRelease());
}

TEST_F(PowerdTest, BusThatAppearsLaterIsPickedUp)
{
    mBus.stop();
    startClient();
    mBus = testsupport::startBus();
    FakeLogind logind;
    EXPECT_THAT(logind.waitForInhibitors(1), ElementsAre("sleep norva-vpnagentd delay"));
}

TEST_F(PowerdTest, LogindThatIsRestartedGetsANewInhibitor)
{
    startClient();
    {
        FakeLogind first;
        first.waitForInhibitors(1);
    }
    FakeLogind second;
    EXPECT_THAT(second.waitForInhibitors(1), ElementsAre("sleep norva-vpnagentd delay"));
    EXPECT_TRUE(second.isHeld());
}

// Or the agent would think for ever that the device sleeps.
TEST_F(PowerdTest, ResumeThatWasMissedIsMadeUpFor)
{
    startClient();
    {
        FakeLogind first;
        first.waitForInhibitors(1);
        first.prepareForSleep(true);
        EXPECT_TRUE(first.waitForRelease());
    }
    FakeLogind second;
    EXPECT_THAT(mEvents.wait(3), ElementsAre("prepare", "suspended", "resume"));
    EXPECT_THAT(mEvents.all(), ElementsAre("prepare", "suspended", "resume"));
}

TEST_F(PowerdTest, SleepThatHasBegunIsNotMissed)
{
    FakeLogind logind;
    logind.setPreparing(true);
    startClient();
    EXPECT_THAT(mEvents.wait(2), ElementsAre("prepare", "suspended"));
}

TEST_F(PowerdTest, SleepThatBeganBeforeThereWasACallbackIsTold)
{
    FakeLogind logind;
    logind.setPreparing(true);
    EXPECT_TRUE(PowerdGmainAttach(mThread.loop()));
    EXPECT_TRUE(PowerdClientInit("norva-vpnagentd"));
    logind.waitForInhibitors(1);
    EXPECT_TRUE(logind.waitForRelease());
    EXPECT_TRUE(PowerdSuspendedRegister(onSuspended));
    EXPECT_TRUE(PowerdPrepareSuspendRegister(onPrepare));
    EXPECT_THAT(mEvents.wait(2), ElementsAre("prepare", "suspended"));
}

TEST_F(PowerdTest, RemovingACallbackInASleepTellsNothing)
{
    FakeLogind logind;
    EXPECT_TRUE(PowerdGmainAttach(mThread.loop()));
    EXPECT_TRUE(PowerdClientInit("norva-vpnagentd"));
    EXPECT_FALSE(PowerdClientInit("norva-vpnagentd")) << "it is started already";
    EXPECT_TRUE(PowerdSuspendedRegister(onSuspended));
    logind.waitForInhibitors(1);
    logind.prepareForSleep(true);
    EXPECT_THAT(mEvents.wait(1), ElementsAre("suspended"));
    EXPECT_TRUE(logind.waitForRelease());
    EXPECT_TRUE(PowerdPrepareSuspendRegister(nullptr));
    mThread.call([] {});
    EXPECT_THAT(mEvents.all(), ElementsAre("suspended"));
}

TEST_F(PowerdTest, SleepIsToldOnce)
{
    FakeLogind logind;
    startClient();
    logind.waitForInhibitors(1);
    logind.prepareForSleep(true);
    logind.prepareForSleep(true);
    logind.waitForRelease();
    mThread.call([] {});
    EXPECT_THAT(mEvents.all(), ElementsAre("prepare", "suspended"));
}

TEST_F(PowerdTest, DeinitLeavesNothingBehind)
{
    const auto descriptors = [] {
        using Iterator = std::filesystem::directory_iterator;
        return std::distance(Iterator("/proc/self/fd"), Iterator());
    };
    FakeLogind logind;
    startClient();
    logind.waitForInhibitors(1);
    EXPECT_TRUE(PowerdClientDeinit());
    EXPECT_TRUE(logind.waitForRelease());  // also: it is done with its own end
    const auto before = descriptors();
    for (std::size_t i = 2; i < 52; ++i) {
        startClient();
        logind.waitForInhibitors(i);
        PowerdClientDeinit();
    }
    EXPECT_TRUE(logind.waitForRelease());
    EXPECT_EQ(before, descriptors());
    logind.prepareForSleep(true);
    EXPECT_THAT(mEvents.all(), IsEmpty());
}

TEST_F(PowerdTest, DeinitInACallbackIsTheLastOfIt)
{
    FakeLogind logind;
    startClient();
    PowerdPrepareSuspendRegister([] {
        sEvents->put("deinit");
        PowerdClientDeinit();
    });
    logind.waitForInhibitors(1);
    logind.prepareForSleep(true);
    EXPECT_TRUE(logind.waitForRelease());
    logind.prepareForSleep(false);
    mThread.call([] {});
    EXPECT_THAT(mEvents.all(), ElementsAre("deinit"));
}

TEST_F(PowerdTest, OperationsBeforeAttachingFailAndDeinitIsHarmless)
{
    EXPECT_TRUE(PowerdClientDeinit());
    EXPECT_FALSE(PowerdClientInit("name"));
    EXPECT_FALSE(PowerdResumeRegister(onResume));
    EXPECT_FALSE(PowerdPrepareSuspendAck(true));
    EXPECT_FALSE(PowerdGmainAttach(nullptr));
    EXPECT_TRUE(PowerdGmainAttach(mThread.loop()));
    EXPECT_FALSE(PowerdGmainAttach(mThread.loop()));
    EXPECT_FALSE(PowerdClientInit(nullptr));
}

TEST_F(PowerdTest, ElogindSuspendsWithinTwoSecondsOfTheAgreement)
{
    if (const std::string reason = testsupport::daemonUnavailable(Daemon::elogind); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const ChildProcess elogind = testsupport::startDaemon(Daemon::elogind);
    startClient();
    const auto holds = [] {
        const auto list =
            testsupport::runCommand({"busctl", "--system", "call", "org.freedesktop.login1", "/org/freedesktop/login1",
                                     "org.freedesktop.login1.Manager", "ListInhibitors"});
        return list.output.find("norva-vpnagentd") != std::string::npos;
    };
    ASSERT_TRUE(testsupport::comesTrue(holds));
    const auto begin = steady_clock::now();
    testsupport::runCommand({"busctl", "--system", "call", "org.freedesktop.login1", "/org/freedesktop/login1",
                             "org.freedesktop.login1.Manager", "Suspend", "b", "false"});
    EXPECT_THAT(mEvents.wait(3), ElementsAre("prepare", "suspended", "resume"));
    EXPECT_LT(steady_clock::now() - begin, seconds(2));
    std::ifstream state("/sys/power/state");
    std::string word;
    state >> word;
    EXPECT_TRUE(word == "freeze" || word == "mem") << word;  // the kernel was asked to
    EXPECT_TRUE(testsupport::comesTrue(holds));
}

}  // namespace
