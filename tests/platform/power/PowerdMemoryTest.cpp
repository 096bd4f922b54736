// SPDX-License-Identifier: Apache-2.0
//
// Memory that runs out while the power daemon's client starts, or on the thread of its loop: the process lives, and the
// client delays the next sleep again.
#include <gmock/gmock.h>
#include <unistd.h>

#include "AllocationFaults.h"
#include "ComesTrue.h"
#include "Daemons.h"
#include "FakeLogind.h"
#include "LoopShortage.h"
#include "powerd.h"

namespace {

using namespace testsupport;

constexpr int moreThanThereAre = 1000;  // allocations

Mailbox* sEvents = nullptr;

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
    PowerdPrepareSuspendAck(true);
}

class PowerdMemoryTest : public testing::Test {
protected:
    PowerdMemoryTest() { sEvents = &mEvents; }
    ~PowerdMemoryTest() override { PowerdClientDeinit(); }

    void start(LoopThread& thread)
    {
        mEvents.clear();
        EXPECT_TRUE(PowerdGmainAttach(thread.loop()));
        EXPECT_TRUE(PowerdClientInit("norva-vpnagentd"));
        EXPECT_TRUE(PowerdResumeRegister(onResume));
        EXPECT_TRUE(PowerdSuspendedRegister(onSuspended));
        EXPECT_TRUE(PowerdPrepareSuspendRegister(onPrepare));
    }

    ChildProcess mBus = startBus();
    Mailbox mEvents;
};

TEST_F(PowerdMemoryTest, StartThatRunsOutOfMemoryFails)
{
    LoopThread thread;
    int refused = 0;
    for (const bool isForEver : {false, true}) {
        bool hasStruck = true;
        for (int nth = 1; hasStruck && nth < moreThanThereAre; ++nth) {
            bool isStarted = false;
            {
                const faults::AllocationFault fault(nth, isForEver);
                ASSERT_NO_THROW(isStarted = PowerdGmainAttach(thread.loop()) && PowerdClientInit("norva-vpnagentd"));
                hasStruck = fault.hasStruck();
            }
            refused += isStarted ? 0 : 1;
            EXPECT_TRUE(PowerdClientDeinit());
        }
        EXPECT_FALSE(hasStruck) << "allocations without end";
    }
    EXPECT_GT(refused, 1);
}

TEST_F(PowerdMemoryTest, SleepAfterAShortageIsDelayedAsBefore)
{
    int nth = 1;
    for (bool hasStruck = true; hasStruck && nth < moreThanThereAre; ++nth) {
        FakeLogind logind;  // one that the client before has asked for nothing
        LoopThread thread;
        start(thread);
        ASSERT_EQ(1, logind.waitForInhibitors(1).size()) << nth;
        {
            const LoopShortage shortage(thread, nth);
            logind.prepareForSleep(true);
            logind.prepareForSleep(false);
            // It asks for an inhibitor after each sleep, and after a connection that was made anew.
            ASSERT_TRUE(comesTrue([&] { return logind.waitForInhibitors(0).size() > 1; })) << nth;
            ASSERT_TRUE(comesTrue([&] { return logind.isHeld(); })) << nth;
            hasStruck = shortage.hasStruck();
        }
        const auto end = [this] { return mEvents.all().empty() || mEvents.all().back() == "resume"; };
        ASSERT_TRUE(comesTrue(end)) << nth;
        mEvents.clear();
        ASSERT_TRUE(comesTrue([&] {
            logind.prepareForSleep(true);
            logind.prepareForSleep(false);
            return mEvents.wait(3, std::chrono::milliseconds(500)).size() >= 3;
        })) << nth;
        const std::vector<std::string> events = mEvents.all();
        EXPECT_EQ((std::vector<std::string>{"prepare", "suspended", "resume"}),
                  std::vector<std::string>(events.begin(), events.begin() + 3))
            << nth;
        EXPECT_TRUE(PowerdClientDeinit());
    }
    EXPECT_GT(nth, 10);
    EXPECT_LT(nth, moreThanThereAre);
}

}  // namespace
