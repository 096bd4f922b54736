// SPDX-License-Identifier: Apache-2.0
//
// Objects that the event thread uses while the agent disposes of them or of others.
#include "ObjectRegistry.h"

#include <gmock/gmock.h>
#include <pthread.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <ctime>
#include <future>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

#include "EventThread.h"
#include "FakeCalls.h"
#include "FakeQuorService.h"
#include "FakeVkLog.h"
#include "NetworkStatus.h"
#include "RecordingCallback.h"
#include "SocketInterface.h"
#include "StorageInterface.h"
#include "SystemInterface.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

/// Processor time of the calling thread.
microseconds processorTime()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return seconds(now.tv_sec) + microseconds(now.tv_nsec / 1000);
}

/// Stops whoever passes until it is opened.
class Gate {
public:
    void pass()
    {
        ++mArrived;
        if (mWork != microseconds(0)) return work();
        mOpened.get_future().wait();
    }
    /// Whoever passes uses up this much processor time instead of sleeping, and goes on.
    void makeBusy(microseconds work) { mWork = work; }
    bool isWorkDone() const { return mIsWorkDone; }
    void waitForArrival() const
    {
        while (mArrived.load() == 0)
            std::this_thread::sleep_for(milliseconds(1));
    }
    void open() { mOpened.set_value(); }

private:
    void work()
    {
        for (const microseconds end = processorTime() + mWork; processorTime() < end;) {
        }
        mIsWorkDone = true;
    }

    std::atomic<int> mArrived{0};
    microseconds mWork{0};
    std::atomic<bool> mIsWorkDone{false};
    std::promise<void> mOpened;
};

/// Is in use as long as its gate is shut.
class GatedSocket : public SocketInterface {
public:
    GatedSocket(Gate& gate, std::atomic<bool>& isGone) : mGate(gate), mIsGone(isGone) {}
    ~GatedSocket() override { mIsGone = true; }
    std::string& getBoundInterface() override
    {
        mGate.pass();
        return SocketInterface::getBoundInterface();
    }

private:
    Gate& mGate;
    std::atomic<bool>& mIsGone;
};

class ObjectRegistryTest : public testing::Test {
protected:
    ObjectRegistryTest()
    {
        setSystemIfObject(&mSystem);
        setSocketIfObject(mSocket);
    }
    ~ObjectRegistryTest() override
    {
        if (mEvents.joinable()) mEvents.join();
        setSystemIfObject(nullptr);
        setSocketIfObject(nullptr);
        if (!mIsGone) delete mSocket;
    }

    /// Lets an event use the socket object, and returns when it does.
    void useSocket()
    {
        mEvents = std::thread([] {
            QSMessage message{"{}", 1};
            handleConManNetworkStatus(nullptr, &message, nullptr);
        });
        mGate.waitForArrival();
    }

    Gate mGate;
    std::atomic<bool> mIsGone{false};
    SystemInterface mSystem;
    GatedSocket* mSocket = new GatedSocket(mGate, mIsGone);
    std::thread mEvents;
};

TEST_F(ObjectRegistryTest, ObjectInUseIsDisposedOfWhenTheUseEnds)
{
    useSocket();
    auto disposal = std::async(std::launch::async, [this] {
        const microseconds before = processorTime();
        DisposePlugin(mSocket);
        return processorTime() - before;
    });
    EXPECT_EQ(std::future_status::timeout, disposal.wait_for(milliseconds(300)));
    EXPECT_FALSE(mIsGone);
    EXPECT_EQ(nullptr, getSocketIfObject());
    mGate.open();
    EXPECT_LT(disposal.get(), milliseconds(100));  // slept instead of looking again and again
    EXPECT_TRUE(mIsGone);
}

TEST_F(ObjectRegistryTest, OtherObjectsAreDisposedOfAtOnce)
{
    useSocket();
    auto disposal = std::async(std::launch::async, [] {
        DisposePlugin(new StorageInterface);
        DisposePlugin(new SocketInterface);
        DisposePlugin(nullptr);
    });
    EXPECT_EQ(std::future_status::ready, disposal.wait_for(seconds(5)));
    mGate.open();
}

TEST_F(ObjectRegistryTest, UsesEndInAnyOrder)
{
    auto first = std::make_unique<UseGuard>();
    auto second = std::make_unique<UseGuard>();
    const UseGuard third;
    first.reset();
    second.reset();
    EXPECT_EQ(mSocket, third.socketIf());
    EXPECT_EQ(mSocket, UseGuard().socketIf());
}

/// All threads share one processor, which a thread of a real-time priority leaves to the others only while it sleeps.
class RealTimeDisposalTest : public ObjectRegistryTest {
protected:
    RealTimeDisposalTest()
    {
        sched_getaffinity(0, sizeof mBefore, &mBefore);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(static_cast<std::size_t>(sched_getcpu()), &one);
        sched_setaffinity(0, sizeof one, &one);
        mGate.makeBusy(milliseconds(100));
    }
    ~RealTimeDisposalTest() override { sched_setaffinity(0, sizeof mBefore, &mBefore); }

    struct Cost {
        int refusal = 0;  // errno, when there is no such priority for this thread
        microseconds time{0};
        microseconds processor{0};
        bool wasInUse = false;  // when the disposal was done
    };

    Cost dispose(Plugin* object) const
    {
        Cost cost;
        std::thread([&] {
            sched_param priority{};
            priority.sched_priority = 10;
            cost.refusal = pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority);
            const steady_clock::time_point begin = steady_clock::now();
            const microseconds used = processorTime();
            DisposePlugin(object);
            cost.processor = processorTime() - used;
            cost.time = std::chrono::duration_cast<microseconds>(steady_clock::now() - begin);
            cost.wasInUse = !mGate.isWorkDone();
        }).join();
        std::cout << "disposed of after " << cost.time.count() << " us, " << cost.processor.count()
                  << " us of processor time\n";
        return cost;
    }

    cpu_set_t mBefore{};
};

TEST_F(RealTimeDisposalTest, UnrelatedObjectIsDisposedOfWithoutAWait)
{
    useSocket();
    const Cost cost = dispose(new StorageInterface);
    if (cost.refusal != 0) GTEST_SKIP() << "no real-time priority: " << std::strerror(cost.refusal);
    EXPECT_TRUE(cost.wasInUse) << "waited for the event thread";
    EXPECT_LT(cost.processor, milliseconds(20));
}

TEST_F(RealTimeDisposalTest, WaitForAnObjectInUseLeavesTheProcessorToItsUser)
{
    useSocket();
    const Cost cost = dispose(mSocket);
    if (cost.refusal != 0) GTEST_SKIP() << "no real-time priority: " << std::strerror(cost.refusal);
    EXPECT_TRUE(mIsGone);
    EXPECT_GT(cost.time, milliseconds(20)) << "did not wait";
    EXPECT_LT(cost.processor, milliseconds(20));
}

TEST_F(ObjectRegistryTest, ObjectThatANewerOneReplacedIsWaitedForAsWell)
{
    useSocket();
    SocketInterface newer;
    setSocketIfObject(&newer);
    auto disposal = std::async(std::launch::async, [this] { DisposePlugin(mSocket); });
    EXPECT_EQ(std::future_status::timeout, disposal.wait_for(milliseconds(100)));
    EXPECT_FALSE(mIsGone);
    mGate.open();
    disposal.get();
    EXPECT_EQ(&newer, getSocketIfObject());
}

TEST_F(ObjectRegistryTest, ChildOfAForkDoesNotWaitForTheThreadsOfItsParent)
{
    useSocket();
    const pid_t child = fork();
    if (child == 0) {
        alarm(5);
        _exit(DisposePlugin(mSocket) ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    mGate.open();
}

TEST_F(ObjectRegistryTest, AgentsCodeIsNeverWaitedFor)
{
    struct : RecordingCallback {
        void OnPowerResume() override { gate.pass(); }
        Gate gate;
    } agent;
    auto* system = new SystemInterface;
    system->SetSystemPluginCB(&agent);
    setSystemIfObject(system);
    mEvents = std::thread(powerResumedCallback);
    agent.gate.waitForArrival();
    auto disposal = std::async(std::launch::async, [system] { DisposePlugin(system); });
    EXPECT_EQ(std::future_status::ready, disposal.wait_for(seconds(5)));
    agent.gate.open();
}

TEST_F(ObjectRegistryTest, EventMayDisposeOfTheObjectThatItIsToldOf)
{
    struct : RecordingCallback {
        void OnPowerResume() override { DisposePlugin(getSystemIfObject()); }
    } agent;
    auto* system = new SystemInterface;
    system->SetSystemPluginCB(&agent);
    setSystemIfObject(system);
    auto event = std::async(std::launch::async, powerResumedCallback);
    EXPECT_EQ(std::future_status::ready, event.wait_for(seconds(5)));
    EXPECT_EQ(nullptr, getSystemIfObject());
}

}  // namespace
