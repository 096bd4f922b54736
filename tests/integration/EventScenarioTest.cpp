// SPDX-License-Identifier: Apache-2.0
//
// What an agent hears when the network changes, the device sleeps, and daemons come and go: the real plug-in and
// platform, a real bus, kernel, connection manager and elogind.
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "ComesTrue.h"
#include "Daemons.h"
#include "LoadedPlugin.h"
#include "Shell.h"
#include "handles/UniqueFd.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;
using testsupport::ChildProcess;
using testsupport::Daemon;
using testsupport::LoadedPlugin;
using testsupport::NotingCallback;
using testsupport::shell;

constexpr char serviceName[] = "com.vesk.connectionmanager";
constexpr std::size_t connectionsOfAnAgent = 2;  // of its bus client and of its power client

std::ptrdiff_t countIn(const char* folder)
{
    using Iterator = std::filesystem::directory_iterator;
    return std::distance(Iterator(folder), Iterator());
}

/// How many connections the bus has, or how many lines a question to it is answered with.
std::ptrdiff_t connections()
{
    const std::string list = shell("busctl --system list --unique --no-legend");
    return std::count(list.begin(), list.end(), '\n');
}

class EventScenarioTest : public testing::Test {
protected:
    void SetUp() override
    {
        mBus = testsupport::startBus();
        testsupport::addVethPair("eth0", "peer0", "10.0.0.2/24");
        testsupport::addVethPair("wwan0", "peer1", "10.1.0.2/24");
        shell("ip link set eth0 down; ip link set wwan0 down");
    }
    void TearDown() override
    {
        disposeAgent();
        mPlugin.reset();
        shell("ip link del eth0; ip link del wwan0");
    }

    static void wifiUp() { shell("ip link set eth0 up; ip route replace default via 10.0.0.1 dev eth0 metric 100"); }
    static void wifiDown() { shell("ip link set eth0 down"); }
    static void wanUp() { shell("ip link set wwan0 up; ip route replace default via 10.1.0.1 dev wwan0 metric 700"); }
    static void wanDown() { shell("ip link set wwan0 down"); }

    void startManager()
    {
        mManager = ChildProcess({WFOAL_BUILD_DIR "/bin/vesk-connectionmanager"});
        testsupport::waitForBusName(serviceName, mManager);
    }
    void startAgent()
    {
        mPlugin = std::make_unique<LoadedPlugin>();
        mSystem = mPlugin->createSystem();
        mSocket = mPlugin->createSocket();
        mSystem->SetSystemPluginCB(&mAgent);
    }
    /// Names of this process's connections to the bus.
    static std::vector<std::string> namesOfAgent()
    {
        std::istringstream list(shell("busctl --system list --unique --no-legend"));
        std::vector<std::string> names;
        for (std::string line; std::getline(list, line);) {
            std::istringstream words(line);
            std::string name, process;
            words >> name >> process;
            if (process == std::to_string(getpid())) names.push_back(name);
        }
        return names;
    }
    static std::vector<std::string> awaitAgentOnBus()
    {
        std::vector<std::string> names;
        const bool isThere = testsupport::comesTrue([&names] {
            names = namesOfAgent();
            return names.size() >= connectionsOfAnAgent;
        });
        if (!isThere) throw std::runtime_error("the agent is not on the bus");
        return names;
    }
    /// Returns when all that has happened so far was told. Whoever asks the connection manager makes it look at once,
    /// and push what has changed; a connection answers a ping after all that came before it. What the agent does about
    /// a message can lead to another one: it asks for the owner of the name, and then subscribes.
    static void settleEvents()
    {
        const std::vector<std::string> names = awaitAgentOnBus();
        for (int round = 0; round < 3; ++round) {
            shell("busctl --system call com.vesk.connectionmanager / com.vesk.JsonService1 getStatus s '{}'");
            for (const std::string& name : names)
                shell("busctl --system call " + name + " / org.freedesktop.DBus.Peer Ping");
        }
    }
    void disposeAgent()
    {
        if (mSystem != nullptr) mPlugin->dispose(mSystem);
        if (mSocket != nullptr) mPlugin->dispose(mSocket);
        mSystem = nullptr;
        mSocket = nullptr;
    }
    /// As the agent connects: lets the plug-in choose, and is told of the choice.
    void bindExpecting(const std::string& name)
    {
        mOuter.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(PLUGIN_SUCCESS, mSocket->BindToInterface("", static_cast<unsigned>(mOuter.get())));
        char bound[32] = "";
        socklen_t length = sizeof bound;
        ASSERT_EQ(0, getsockopt(mOuter.get(), SOL_SOCKET, SO_BINDTODEVICE, bound, &length));
        ASSERT_EQ(name, bound);
        settleEvents();  // what belonged to the time before
        mAgent.mailbox.clear();
    }
    /// Everything the agent was told once all is quiet; `least` is waited for, however slow the machine.
    std::vector<std::string> told(std::size_t least = 0)
    {
        mAgent.mailbox.wait(least);
        settleEvents();
        return mAgent.mailbox.all();
    }

    ChildProcess mBus;
    ChildProcess mManager;
    NotingCallback mAgent;
    std::unique_ptr<LoadedPlugin> mPlugin;
    KEST_SystemPlugin* mSystem = nullptr;
    KEST_SocketPlugin* mSocket = nullptr;
    UniqueFd mOuter;
};

TEST_F(EventScenarioTest, WiFiLostWhileBoundToItIsToldOnceWhenThereIsWan)
{
    startManager();
    startAgent();
    wifiUp();
    wanUp();
    bindExpecting("eth0");
    wifiDown();
    EXPECT_THAT(told(1), ElementsAre("changed"));
    bindExpecting("wwan0");
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(EventScenarioTest, WiFiThatComesWhileOnWanIsToldOnce)
{
    startManager();
    startAgent();
    wanUp();
    bindExpecting("wwan0");
    wifiUp();
    EXPECT_THAT(told(1), ElementsAre("changed"));
    bindExpecting("eth0");
}

TEST_F(EventScenarioTest, LosingBothIsToldOncePerLossAtMost)
{
    startManager();
    startAgent();
    wifiUp();
    wanUp();
    bindExpecting("eth0");
    shell("ip link set eth0 down; ip link set wwan0 down");
    // The second loss may belong to the burst of the first one, or come after it was told.
    EXPECT_THAT(told(1), AnyOf(ElementsAre("changed"), ElementsAre("changed", "changed")));
}

TEST_F(EventScenarioTest, UnrelatedChangesAreNotTold)
{
    startManager();
    startAgent();
    wifiUp();
    bindExpecting("eth0");
    wanUp();
    shell("ip route add 10.9.0.0/16 dev lo; ip addr add 10.7.0.1/32 dev lo");
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(EventScenarioTest, FlappingLinkIsToldTwiceAtMost)
{
    startManager();
    startAgent();
    wifiUp();
    wanUp();
    bindExpecting("eth0");
    const auto begin = steady_clock::now();
    for (int i = 0; i < 20; ++i) {
        i % 2 == 0 ? wifiDown() : wifiUp();
        std::this_thread::sleep_for(milliseconds(40));
    }
    // A second of it is told twice at most; a slow machine flaps for longer.
    const auto halfSeconds = (steady_clock::now() - begin) / milliseconds(500);
    EXPECT_LE(told().size(), std::max<std::size_t>(2, static_cast<std::size_t>(halfSeconds) + 1));
}

TEST_F(EventScenarioTest, RestartedBusLeavesOneWorkingSubscription)
{
    startManager();
    startAgent();
    wanUp();
    bindExpecting("wwan0");
    mBus.sendSignal(SIGKILL);
    mBus.wait();
    mBus = testsupport::startBus();
    testsupport::waitForBusName(serviceName, mManager);
    settleEvents();
    mAgent.mailbox.clear();
    wifiUp();
    EXPECT_THAT(told(1), ElementsAre("changed"));
}

TEST_F(EventScenarioTest, HundredRestartsOfTheManagerLeaveOneWorkingSubscription)
{
    startAgent();
    for (int i = 0; i < 100; ++i) {
        startManager();
        mManager.sendSignal(SIGKILL);
        mManager.wait();
    }
    startManager();
    wanUp();
    bindExpecting("wwan0");
    wifiUp();
    EXPECT_THAT(told(1), ElementsAre("changed"));
    EXPECT_LE(connections(), 5);  // the daemon's own, agent's two, manager's two
}

TEST_F(EventScenarioTest, ManagerThatIsSilentHoldsNobodyUp)
{
    startManager();
    mManager.sendSignal(SIGSTOP);
    startAgent();
    awaitAgentOnBus();
    const auto begin = steady_clock::now();
    disposeAgent();
    mPlugin.reset();                                      // with the subscription still unanswered
    EXPECT_LT(steady_clock::now() - begin, seconds(30));  // an answer is waited for two minutes
    startAgent();
    wanUp();
    mManager.sendSignal(SIGCONT);
    bindExpecting("wwan0");
    wifiUp();
    EXPECT_THAT(told(1), ElementsAre("changed"));
}

class SleepScenarioTest : public EventScenarioTest {
protected:
    void SetUp() override
    {
        EventScenarioTest::SetUp();
        if (const std::string reason = testsupport::daemonUnavailable(Daemon::elogind); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        // So that it is not the end of the delay that lets the device sleep.
        shell(
            "mkdir -p /run/elogind/logind.conf.d; "
            "printf '[Login]\\nInhibitDelayMaxSec=60\\n' >/run/elogind/logind.conf.d/test.conf");
        // Before the thread is there that calls it.
        mAgent.onSuspended = [this] { mStateWhenTold = shell(state); };
    }
    static bool isInhibited()
    {
        return shell(
                   "busctl --system call org.freedesktop.login1 /org/freedesktop/login1 "
                   "org.freedesktop.login1.Manager ListInhibitors")
                   .find("norva-vpnagentd") != std::string::npos;
    }
    static bool waitUntilInhibited() { return testsupport::comesTrue(isInhibited); }
    void suspendAndResume()
    {
        const std::string awake = shell(state);
        EXPECT_EQ("t 60000000\n", shell("busctl --system get-property org.freedesktop.login1 /org/freedesktop/login1 "
                                        "org.freedesktop.login1.Manager InhibitDelayMaxUSec"));
        const auto begin = steady_clock::now();
        shell(
            "busctl --system call org.freedesktop.login1 /org/freedesktop/login1 org.freedesktop.login1.Manager "
            "Suspend b false");
        EXPECT_THAT(mAgent.mailbox.wait(2), ElementsAre("suspended", "resumed"));
        EXPECT_GE(steady_clock::now() - begin, milliseconds(1000));  // the agent had its second
        EXPECT_EQ(awake, mStateWhenTold);
        EXPECT_NE(awake, shell(state));
        EXPECT_TRUE(waitUntilInhibited());
    }

    static constexpr char state[] = "cat /sys/power/state";
    std::string mStateWhenTold;
};

TEST_F(SleepScenarioTest, AgentIsToldBeforeSleepAndAfter)
{
    const ChildProcess elogind = testsupport::startDaemon(Daemon::elogind);
    startAgent();
    ASSERT_TRUE(waitUntilInhibited());
    suspendAndResume();
}

TEST_F(SleepScenarioTest, LogindThatComesLaterIsPickedUpAndLetGoAtUnload)
{
    startAgent();
    const ChildProcess elogind = testsupport::startDaemon(Daemon::elogind);
    ASSERT_TRUE(waitUntilInhibited());
    suspendAndResume();
    disposeAgent();
    mPlugin.reset();
    EXPECT_TRUE(testsupport::comesTrue([] { return !isInhibited(); }));
}

class FloodScenarioTest : public EventScenarioTest {
protected:
    void SetUp() override
    {
        EventScenarioTest::SetUp();
        mFlood = ChildProcess({WFOAL_BUILD_DIR "/bin/StatusFlood", "200"});
        testsupport::waitForBusName(serviceName, mFlood);
    }
    ChildProcess mFlood;
};

TEST_F(FloodScenarioTest, ObjectsComeAndGoTenThousandTimesWhileEventsArrive)
{
    LoadedPlugin plugin;
    plugin.dispose(plugin.createSystem());
    const auto threads = countIn("/proc/self/task");
    const auto descriptors = countIn("/proc/self/fd");
    for (int i = 0; i < 10000; ++i) {
        KEST_SystemPlugin* system = plugin.createSystem();
        KEST_SocketPlugin* socket = plugin.createSocket();
        system->SetSystemPluginCB(&mAgent);
        if (i % 100 == 0) std::this_thread::sleep_for(milliseconds(1));
        plugin.dispose(i % 2 == 0 ? static_cast<Plugin*>(system) : socket);
        plugin.dispose(i % 2 == 0 ? static_cast<Plugin*>(socket) : system);
    }
    EXPECT_THAT(mAgent.mailbox.all(), testing::Contains("changed"));
    EXPECT_EQ(threads, countIn("/proc/self/task"));
    EXPECT_EQ(descriptors, countIn("/proc/self/fd"));
}

TEST_F(FloodScenarioTest, LibraryComesAndGoesAThousandTimesWhileEventsArrive)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    {
        LoadedPlugin warmUp;
    }
    std::thread([] {}).join();  // the thread sanitizer answers the first thread with one of its own
    const auto threads = countIn("/proc/self/task");
    const auto descriptors = countIn("/proc/self/fd");
    const auto connected = connections();
    constexpr int rounds = 1000;
    for (int i = 0; i < rounds; ++i) {
        LoadedPlugin plugin;
        KEST_SystemPlugin* system = plugin.createSystem();
        KEST_SocketPlugin* socket = plugin.createSocket();
        system->SetSystemPluginCB(&mAgent);
        if (i % 10 == 0) mAgent.mailbox.wait(mAgent.mailbox.all().size() + 1);
        plugin.dispose(system);
        plugin.dispose(socket);
    }
    EXPECT_EQ(threads, countIn("/proc/self/task"));
    // Each run of the event side leaves its loop object behind, with the one descriptor of its context.
    EXPECT_EQ(descriptors + rounds, countIn("/proc/self/fd"));
    EXPECT_EQ(connected, connections());
}

}  // namespace
