// SPDX-License-Identifier: Apache-2.0
//
// How soon an agent knows that its network went, that a better one came, and that the system is going to sleep: from
// the kernel's event or logind's notice to the callback, through the real connection manager, a real bus and the real
// plug-in.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "Comparison.h"
#include "Daemons.h"
#include "FakeLogind.h"
#include "LoadedPlugin.h"
#include "Require.h"
#include "Shell.h"
#include "handles/UniqueFd.h"

namespace {

using bench::require;

using Clock = std::chrono::steady_clock;
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

/// Notes when the kernel announced something of the kind last asked for, on a thread of its own.
class KernelEvents {
public:
    KernelEvents()
    {
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_ROUTE;
        require(bind(mSocket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "bind");
        mThread = std::thread([this] { listen(); });
    }
    ~KernelEvents()
    {
        mIsStopped = true;
        mThread.join();
    }
    void forget() { mIsSeen.store(false); }
    /// When the first message since forget() arrived, which is waited for.
    Clock::time_point first() const
    {
        while (!mIsSeen.load())
            std::this_thread::sleep_for(milliseconds(1));
        return mFirst.load();
    }
    void await(std::uint16_t type) { mType.store(type); }

private:
    void listen()
    {
        alignas(nlmsghdr) char buffer[16384];
        while (!mIsStopped) {
            pollfd readable{mSocket.get(), POLLIN, 0};
            if (poll(&readable, 1, 100) <= 0) continue;
            const ssize_t length = recv(mSocket.get(), buffer, sizeof buffer, 0);
            const Clock::time_point now = Clock::now();
            if (length < static_cast<ssize_t>(sizeof(nlmsghdr))) continue;
            if (reinterpret_cast<const nlmsghdr*>(buffer)->nlmsg_type != mType.load() || mIsSeen.load()) continue;
            mFirst.store(now);
            mIsSeen.store(true);
        }
    }

    const UniqueFd mSocket{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)};
    std::atomic<Clock::time_point> mFirst{};
    std::atomic<bool> mIsSeen{false};
    std::atomic<std::uint16_t> mType{0};
    std::atomic<bool> mIsStopped{false};
    std::thread mThread;
};

void setLink(const char* name, bool isUp)
{
    const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    std::string(name).copy(request.ifr_name, sizeof request.ifr_name - 1);
    require(ioctl(socket.get(), SIOCGIFFLAGS, &request) == 0, "SIOCGIFFLAGS");
    request.ifr_flags = static_cast<short>(isUp ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
    require(ioctl(socket.get(), SIOCSIFFLAGS, &request) == 0, "SIOCSIFFLAGS");
}

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
    KernelEvents kernel;
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
        add(losses, agent.wait() - kernel.first());
        bindExpecting(*socketIf, "wwan0");
        std::this_thread::sleep_for(quiet);
        kernel.await(RTM_NEWROUTE);
        setLink("eth0", true);
        // The local routes of the address come with the link. The default route is another program's, a little later.
        std::this_thread::sleep_for(milliseconds(10));
        kernel.forget();
        agent.forget();
        shell("ip route add default via 10.0.0.1 dev eth0 metric 100");
        add(returns, agent.wait() - kernel.first());
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
    table.distribution("a better network has its default route", returns, 0.005, 0.015);
    table.distribution("the system is going to sleep", sleeps, 0.003, 0.003);
    plugin.dispose(systemIf);
    plugin.dispose(socketIf);
    return table.result();
}
