// SPDX-License-Identifier: Apache-2.0
//
// How soon an agent knows that its network went, that a better one came, and that the system is going to sleep: from
// the kernel's event or logind's notice to the callback, through the real connection manager, a real bus and the real
// plug-in. Beside it, when a NetworkManager of its own tells the same loss.
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Comparison.h"
#include "Daemons.h"
#include "FakeLogind.h"
#include "KernelEvents.h"
#include "LoadedPlugin.h"
#include "NetworkManagerPeer.h"
#include "Require.h"
#include "Shell.h"
#include "handles/UniqueFd.h"

namespace {

using bench::Clock;
using bench::NetworkManagerPeer;
using bench::require;
using bench::setLink;
using std::chrono::milliseconds;
using testsupport::shell;

class Agent : public KEST_SystemPluginCB {
public:
    void OnPowerSuspended() override { note(); }
    void OnPowerResume() override { note(); }
    void OnConnectionChange(std::uint32_t) override { note(); }
    void OnConfigurationChange() override {}

    void forget() { mIsTold.store(false); }
    Clock::time_point wait() const
    {
        const Clock::time_point end = Clock::now() + std::chrono::seconds(10);
        while (!mIsTold.load() && Clock::now() < end)
            std::this_thread::sleep_for(milliseconds(1));
        require(mIsTold.load(), "waiting for the callback");
        return mTold.load();
    }

private:
    void note()
    {
        if (!mIsTold.load()) mTold.store(Clock::now());
        mIsTold.store(true);
    }

    std::atomic<Clock::time_point> mTold{};
    std::atomic<bool> mIsTold{false};
};

/// As an agent that connects: the plug-in chooses the interface.
void bindExpecting(KEST_SocketPlugin& plugin, const std::string& expected)
{
    const UniqueFd outer(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    require(plugin.BindToInterface("", static_cast<unsigned>(outer.get())) == PLUGIN_SUCCESS, "BindToInterface");
    char bound[IFNAMSIZ] = "";
    socklen_t length = sizeof bound;
    require(getsockopt(outer.get(), SOL_SOCKET, SO_BINDTODEVICE, bound, &length) == 0 && expected == bound,
            "choosing the interface");
}

using Times = std::vector<double>;

void add(Times& times, Clock::duration time)
{
    times.push_back(std::chrono::duration<double>(time).count());
}

}  // namespace

int main()
{
    setenv("VKLOG_LEVEL", "3", 1);
    const std::string noManager = testsupport::daemonUnavailable(testsupport::Daemon::networkManager);
    std::optional<NetworkManagerPeer> networkManager;
    if (noManager.empty()) networkManager.emplace();
    Times carriers;
    Times states;
    const testsupport::ChildProcess bus = testsupport::startBus();
    testsupport::addVethPair("eth0", "peer0", "10.0.0.2/24");
    testsupport::addVethPair("wwan0", "peer1", "10.1.0.2/24");
    shell(
        "ip route add default via 10.0.0.1 dev eth0 metric 100; ip route add default via 10.1.0.1 dev wwan0 metric "
        "700");
    testsupport::FakeLogind logind;
    testsupport::ChildProcess manager({WFOAL_BUILD_DIR "/bin/vesk-connectionmanager"});
    testsupport::waitForBusName("com.vesk.connectionmanager", manager);
    const testsupport::LoadedPlugin plugin;
    KEST_SystemPlugin* systemIf = plugin.createSystem();
    KEST_SocketPlugin* socketIf = plugin.createSocket();
    Agent agent;
    systemIf->SetSystemPluginCB(&agent);
    bench::KernelEvents kernel;
    Times losses;
    Times returns;
    constexpr int rounds = 200;
    constexpr milliseconds quiet(250);  // longer than a burst
    std::this_thread::sleep_for(std::chrono::seconds(1));
    for (int round = 0; round < rounds; ++round) {
        bindExpecting(*socketIf, "eth0");
        std::this_thread::sleep_for(quiet);
        kernel.await(RTM_NEWLINK);
        kernel.forget();
        agent.forget();
        setLink("eth0", false);
        const Clock::time_point down = Clock::now();
        add(losses, agent.wait() - kernel.firstBefore(down));
        if (networkManager) carriers.push_back(networkManager->secondsOfLoss(NetworkManagerPeer::Signal::carrier));
        // It takes seconds each time.
        if (networkManager && round % 20 == 0) {
            states.push_back(networkManager->secondsOfLoss(NetworkManagerPeer::Signal::state));
        }
        bindExpecting(*socketIf, "wwan0");
        std::this_thread::sleep_for(quiet);
        kernel.await(RTM_NEWROUTE);
        setLink("eth0", true);
        // The local routes of the address come with the link. The default route is another program's, a little later.
        std::this_thread::sleep_for(milliseconds(10));
        kernel.forget();
        agent.forget();
        shell("ip route add default via 10.0.0.1 dev eth0 metric 100");
        const Clock::time_point routed = Clock::now();
        add(returns, agent.wait() - kernel.firstBefore(routed));
    }
    Times sleeps;
    constexpr std::size_t sleepRounds = 30;  // the plug-in gives the agent a second each time
    for (std::size_t round = 1; round <= sleepRounds; ++round) {
        logind.waitForInhibitors(round);
        agent.forget();
        const Clock::time_point begin = Clock::now();
        logind.prepareForSleep(true);
        add(sleeps, agent.wait() - begin);
        require(logind.waitForRelease(), "going to sleep");
        agent.forget();
        logind.prepareForSleep(false);
        agent.wait();
    }
    bench::Table table("Reaction: from the event to the agent's callback");
    table.distribution("the bound network goes", losses, 0.005, 0.015);
    if (networkManager) {
        table.peerDistribution("the bound network goes", "NetworkManager's carrier", carriers);
        table.peerDistribution("the bound network goes", "NetworkManager's state", states);
    } else {
        table.missing("the bound network goes, to NetworkManager's carrier", noManager);
    }
    table.distribution("a better network has its default route", returns, 0.005, 0.015);
    table.distribution("the system is going to sleep", sleeps, 0.003, 0.003);
    plugin.dispose(systemIf);
    plugin.dispose(socketIf);
    return table.result();
}
