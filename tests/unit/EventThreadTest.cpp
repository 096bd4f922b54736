// SPDX-License-Identifier: Apache-2.0
//
// The event side: start, stop, and the thread.
#include "EventThread.h"

#include <gmock/gmock.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "EventThreadFixture.h"
#include "FakeCalls.h"
#include "FakePowerd.h"
#include "FakeQuorService.h"
#include "FakeVkLog.h"
#include "LoopThread.h"
#include "NetworkStatus.h"
#include "ObjectRegistry.h"
#include "QuorClient.h"
#include "SystemInterface.h"

namespace {

using eventthread::Failing;
using eventthread::glib;
using eventthread::sleepMicroseconds;
using fakes::LogLine;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

const std::vector<std::string> startCalls = {
    "QSRegister (null)",
    "QSGmainAttach",
    "QSRegisterServerStatus com.vesk.connectionmanager",
    "PowerdGmainAttach",
    "PowerdClientInit norva-vpnagentd",
    "PowerdResumeRegister",
    "PowerdSuspendedRegister",
    "PowerdPrepareSuspendRegister",
};

std::ptrdiff_t countIn(const char* folder)
{
    using Iterator = std::filesystem::directory_iterator;
    return std::distance(Iterator(folder), Iterator());
}

class EventThreadTest : public eventthread::Fixture {};

TEST_F(EventThreadTest, StartMakesEverythingInOrder)
{
    EXPECT_TRUE(startQuorIpcHandling());
    EXPECT_EQ(startCalls, fakes::calls());
    EXPECT_EQ(glib().lastLoop, fakes::bus().loop);
    EXPECT_EQ(glib().lastLoop, fakes::power().loop);
    EXPECT_EQ(&handleConManServiceStatus, fakes::bus().statusCallback);
    EXPECT_EQ(&powerResumedCallback, fakes::power().resume);
    EXPECT_EQ(&powerSuspendedCallback, fakes::power().suspended);
    EXPECT_EQ(&powerPrepareSuspendCallback, fakes::power().prepareSuspend);
    EXPECT_THAT(ownLog(), ElementsAre("startQuorIpcHandling: Called!"));
    EXPECT_NE(g_main_context_default(), g_main_loop_get_context(glib().lastLoop));
}

TEST_F(EventThreadTest, SecondStartDoesNothingAndSaysTrue)
{
    ASSERT_TRUE(startQuorIpcHandling());
    GMainLoop* first = glib().lastLoop;
    fakes::clearCalls();
    EXPECT_TRUE(startQuorIpcHandling());
    EXPECT_EQ(first, glib().lastLoop);
    EXPECT_THAT(fakes::calls(), IsEmpty());
}

TEST_F(EventThreadTest, ThreadSaysWhenItRunsAndWhenItStops)
{
    ASSERT_TRUE(startQuorIpcHandling());
    onEventThread([] {});
    stopQuorIpcHandling();
    EXPECT_THAT(fakes::logLines(),
                testing::Contains(LogLine{7, "eventProcessingThread: Running Event Processing Thread"}));
    EXPECT_THAT(fakes::logLines(),
                testing::Contains(LogLine{7, "eventProcessingThread: Stopping Event Processing Thread"}));
}

TEST_F(EventThreadTest, ThreadWithoutALoopReturnsAtOnce)
{
    EXPECT_EQ(nullptr, eventProcessingThread(nullptr));
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

TEST_F(EventThreadTest, StopWhenNeverStartedOnlyLogs)
{
    EXPECT_TRUE(stopQuorIpcHandling());
    EXPECT_THAT(ownLog(), ElementsAre("stopQuorIpcHandling: Called!", "stopQuorIpcHandling: Finished!"));
    EXPECT_THAT(fakes::calls(), IsEmpty());
}

TEST_F(EventThreadTest, StopQuitsJoinsAndLeavesThePowerDaemonButNotTheBus)
{
    ASSERT_TRUE(startQuorIpcHandling());
    fakes::clearCalls();
    fakes::clearLog();
    EXPECT_TRUE(stopQuorIpcHandling());
    EXPECT_THAT(ownLog(),
                ElementsAre("stopQuorIpcHandling: Called!", "stopQuorIpcHandling: Quitting Loop!",
                            "stopQuorIpcHandling: Joining Thread!", "stopQuorIpcHandling: Thread Quit or not up!",
                            "stopQuorIpcHandling: Deiniting powerd client!", "stopQuorIpcHandling: Finished!"));
    EXPECT_THAT(fakes::calls(), ElementsAre("PowerdClientDeinit"));
}

/// A source that is always ready, on the context of the last loop.
class BusySource {
public:
    explicit BusySource(int priority) : mSource(g_idle_source_new())
    {
        g_source_set_priority(mSource.get(), priority);
        const GSourceFunc again = [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; };
        g_source_set_callback(mSource.get(), again, nullptr, nullptr);
        g_source_attach(mSource.get(), g_main_loop_get_context(glib().lastLoop));
    }
    ~BusySource() { remove(); }
    void remove() { g_source_destroy(mSource.get()); }

private:
    GSourcePtr mSource;
};

TEST_F(EventThreadTest, StopIsNotHeldUpByASourceThatIsAlwaysReady)
{
    for (const int priority : {G_PRIORITY_DEFAULT, G_PRIORITY_HIGH - 1, G_MININT}) {
        ASSERT_TRUE(startQuorIpcHandling());
        onEventThread([] {});
        BusySource busy(priority);
        auto stopped = std::async(std::launch::async, stopQuorIpcHandling);
        EXPECT_EQ(std::future_status::ready, stopped.wait_for(std::chrono::seconds(5))) << priority;
        busy.remove();  // or a failed test would not end
    }
}

TEST_F(EventThreadTest, QuitBeforeTheLoopRunsIsNotLostThoughASourceIsAlwaysReady)
{
    for (const int priority : {G_PRIORITY_DEFAULT, G_PRIORITY_HIGH - 1, G_MININT}) {
        std::promise<void> isReached;
        std::promise<void> mayGoOn;
        glib().beforeRun = [&] {
            isReached.set_value();
            mayGoOn.get_future().wait();
        };
        ASSERT_TRUE(startQuorIpcHandling());
        isReached.get_future().wait();
        BusySource busy(priority);
        fakes::clearLog();
        auto stopped = std::async(std::launch::async, stopQuorIpcHandling);
        while (ownLog().size() < 3)  // "Joining Thread!" is the third line
            std::this_thread::yield();
        mayGoOn.set_value();
        EXPECT_EQ(std::future_status::ready, stopped.wait_for(std::chrono::seconds(5))) << priority;
        busy.remove();
        stopped.get();
    }
}

TEST_F(EventThreadTest, StopLeavesTheRegistryAlone)
{
    SystemInterface systemIf;
    ASSERT_TRUE(startQuorIpcHandling());
    setSystemIfObject(&systemIf);
    stopQuorIpcHandling();
    EXPECT_EQ(&systemIf, getSystemIfObject());
}

TEST_F(EventThreadTest, BusHandleStaysRegisteredAfterStop)
{
    ASSERT_TRUE(startQuorIpcHandling());
    stopQuorIpcHandling();
    fakes::clearCalls();
    EXPECT_TRUE(quorUnregister());
    EXPECT_THAT(fakes::calls(), ElementsAre("QSUnregister"));
}

TEST_F(EventThreadTest, LoopObjectOutlivesTheStop)
{
    ASSERT_TRUE(startQuorIpcHandling());
    GMainLoop* loop = glib().lastLoop;
    const auto descriptors = countIn("/proc/self/fd");
    stopQuorIpcHandling();
    EXPECT_FALSE(g_main_loop_is_running(loop));        // still there to be asked,
    EXPECT_EQ(descriptors, countIn("/proc/self/fd"));  // with the one descriptor of its context
    g_main_loop_unref(loop);
    EXPECT_EQ(descriptors - 1, countIn("/proc/self/fd"));
}

TEST_F(EventThreadTest, StartAfterStopBuildsEverythingAfresh)
{
    ASSERT_TRUE(startQuorIpcHandling());
    GMainLoop* first = glib().lastLoop;
    QSHandle* firstHandle = fakes::bus().handle;
    stopQuorIpcHandling();
    fakes::clearCalls();
    EXPECT_TRUE(startQuorIpcHandling());
    EXPECT_EQ(startCalls, fakes::calls());
    EXPECT_NE(first, glib().lastLoop);
    EXPECT_NE(firstHandle, fakes::bus().handle);
    bool ran = false;
    onEventThread([&ran] { ran = true; });
    EXPECT_TRUE(ran);
}

TEST_F(EventThreadTest, FailedRegistrationSkipsAttachAndWatchAndGoesOn)
{
    fakes::bus().failing = "QSRegister";
    EXPECT_TRUE(startQuorIpcHandling());
    std::vector<std::string> expected = startCalls;
    expected.erase(expected.begin() + 1, expected.begin() + 3);
    EXPECT_EQ(expected, fakes::calls());
    EXPECT_EQ(1u, fakes::logLines(3).size());
}

TEST_F(EventThreadTest, FailedAttachSkipsTheWatchAndGoesOn)
{
    fakes::bus().failing = "QSGmainAttach";
    EXPECT_TRUE(startQuorIpcHandling());
    std::vector<std::string> expected = startCalls;
    expected.erase(expected.begin() + 2);
    EXPECT_EQ(expected, fakes::calls());
    EXPECT_EQ(1u, fakes::logLines(3).size());
}

TEST_F(EventThreadTest, PowerDaemonFailuresAreNotNoticed)
{
    fakes::power().working = false;
    EXPECT_TRUE(startQuorIpcHandling());
    EXPECT_EQ(startCalls, fakes::calls());
    EXPECT_THAT(fakes::logLines(3), IsEmpty());
}

TEST_F(EventThreadTest, FailedContextLeavesTheEventSideStopped)
{
    glib().failing = Failing::Context;
    EXPECT_FALSE(startQuorIpcHandling());
    EXPECT_THAT(fakes::logLines(3), ElementsAre(LogLine{3, "startQuorIpcHandling: Error Allocating new Context"}));
    EXPECT_THAT(fakes::calls(), IsEmpty());
    glib().failing = Failing::Nothing;
    EXPECT_TRUE(startQuorIpcHandling());
}

TEST_F(EventThreadTest, FailedLoopLeavesTheEventSideStopped)
{
    glib().failing = Failing::Loop;
    EXPECT_FALSE(startQuorIpcHandling());
    EXPECT_THAT(fakes::logLines(3), ElementsAre(LogLine{3, "startQuorIpcHandling: Error Allocating Main Loop"}));
    EXPECT_EQ(1, glib().releases);
    EXPECT_THAT(fakes::calls(), IsEmpty());
    glib().failing = Failing::Nothing;
    EXPECT_TRUE(startQuorIpcHandling());
}

TEST_F(EventThreadTest, FailedThreadLeavesTheEventSideStoppedButTheBusRegistered)
{
    glib().failing = Failing::Thread;
    EXPECT_FALSE(startQuorIpcHandling());
    EXPECT_THAT(fakes::logLines(3),
                ElementsAre(LogLine{3, "startQuorIpcHandling: Error creating event thread: no more threads"}));
    EXPECT_EQ(1, glib().releases);
    EXPECT_EQ(std::vector<std::string>(startCalls.begin(), startCalls.begin() + 3), fakes::calls());
    fakes::clearLog();
    EXPECT_TRUE(stopQuorIpcHandling());
    EXPECT_THAT(ownLog(), ElementsAre("stopQuorIpcHandling: Called!", "stopQuorIpcHandling: Finished!"));
    glib().failing = Failing::Nothing;
    EXPECT_TRUE(startQuorIpcHandling());
}

TEST_F(EventThreadTest, StatusChangesReachTheSubscriptionOnTheEventThread)
{
    ASSERT_TRUE(startQuorIpcHandling());
    onEventThread([] { fakes::bus().statusCallback(nullptr, "com.vesk.connectionmanager", true, nullptr); });
    ASSERT_EQ(1u, fakes::bus().calls.size());
    EXPECT_EQ("vesk://com.vesk.connectionmanager/getStatus", fakes::bus().calls[0].uri);
}

TEST_F(EventThreadTest, StopWaitsForTheThreadBeforeItReleasesAnything)
{
    glib().afterRun = [] {
        sleepMicroseconds(100000);
        fakes::recordCall("loop left, context released " + std::to_string(glib().releases) + " times");
    };
    ASSERT_TRUE(startQuorIpcHandling());
    onEventThread([] {});
    fakes::clearLog();
    fakes::clearCalls();
    fakes::recordLogInCalls(true);
    stopQuorIpcHandling();
    EXPECT_THAT(fakes::calls(),
                ElementsAre("LOG 7 stopQuorIpcHandling: Called!", "LOG 7 stopQuorIpcHandling: Quitting Loop!",
                            "LOG 7 stopQuorIpcHandling: Joining Thread!", "loop left, context released 0 times",
                            "LOG 7 eventProcessingThread: Stopping Event Processing Thread",
                            "LOG 7 stopQuorIpcHandling: Thread Quit or not up!",
                            "LOG 7 stopQuorIpcHandling: Deiniting powerd client!", "PowerdClientDeinit",
                            "LOG 7 stopQuorIpcHandling: Finished!"));
    EXPECT_EQ(1, glib().releases);
}

// A quit that comes before the thread has entered its loop must not be lost: this would hang sooner or later.
TEST_F(EventThreadTest, StartAndStopTenThousandTimes)
{
    std::thread([] {}).join();  // the thread sanitizer answers the first thread with one of its own
    const auto threads = countIn("/proc/self/task");
    const auto descriptors = countIn("/proc/self/fd");
    for (int i = 0; i < 10000; ++i) {
        ASSERT_TRUE(startQuorIpcHandling());
        ASSERT_TRUE(stopQuorIpcHandling());
        g_main_loop_unref(glib().lastLoop);  // or its descriptors would run out
        if (i % 100 == 0) fakes::clearLog();
        fakes::clearCalls();
    }
    EXPECT_EQ(threads, countIn("/proc/self/task"));
    EXPECT_EQ(descriptors, countIn("/proc/self/fd"));
}

}  // namespace
