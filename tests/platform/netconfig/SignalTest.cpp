// SPDX-License-Identifier: Apache-2.0
//
// An agent with a busy timer signal: no request may notice it.
#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/stat.h>
#include <time.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "Daemons.h"
#include "KernelState.h"
#include "SignalsBlocked.h"
#include "VkNetConfigLib.h"

using namespace testsupport;

namespace {

constexpr char filter[] =
    R"({"label":"signals","chainNew":"IN","rules":[{"operation":"append","source":"192.0.2.1","jumpTo":"DROP"}]})";
constexpr char noFilter[] = R"({"label":"signals","chainDelete":"IN"})";
constexpr char dns[] = R"({"ifName":"vpn0","domainsOnIfDns":["corp.example"],"ipv4":{"dns":["0x0100080a"],
    "additionalIfRoutes":[{"ip":"192.168.0.0","netmask":"255.255.0.0","gateway":null,"metric":5}]}})";

std::atomic<int> sHandled{0};

// A thousand signals a second to this process, whose handler restarts system calls. One thread, so it gets them all.
class TimerSignals {
public:
    TimerSignals()
    {
        sHandled = 0;
        struct sigaction action {};
        action.sa_handler = [](int) { ++sHandled; };
        action.sa_flags = SA_RESTART;
        sigaction(SIGALRM, &action, nullptr);
        if (timer_create(CLOCK_MONOTONIC, nullptr, &mTimer) != 0) throw std::runtime_error("timer_create");
        const itimerspec each{{0, 1000000}, {0, 1000000}};
        timer_settime(mTimer, 0, &each, nullptr);
    }
    TimerSignals(const TimerSignals&) = delete;
    TimerSignals& operator=(const TimerSignals&) = delete;
    ~TimerSignals()
    {
        timer_delete(mTimer);
        signal(SIGALRM, SIG_IGN);
    }

private:
    timer_t mTimer{};
};

class SignalTest : public testing::Test {
protected:
    void SetUp() override
    {
        setenv("VKLOG_TARGET", "stderr", 1);
        setenv("VKLOG_LEVEL", "4", 1);
        makeInterface();
    }

    // How many requests of these rounds were refused.
    static int refusals(int rounds)
    {
        int refused = 0;
        for (int round = 0; round < rounds; ++round) {
            for (const int result : {VkFirewallFullCtrl(filter), CmAddInterfaceCfg2(dns), CmDelInterfaceCfg("vpn0"),
                                     VkFirewallFullCtrl(noFilter)}) {
                if (result != 0) ++refused;
            }
        }
        return refused;
    }

    static void expectNothingLeft(const std::string& before)
    {
        EXPECT_EQ(networkSnapshot(), before);
        EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
    }
};

}  // namespace

TEST_F(SignalTest, TwoHundredRoundsWithResolvedAndFilterSucceedUnderAThousandSignalsASecond)
{
    if (const std::string reason = daemonUnavailable(Daemon::resolved); !reason.empty()) GTEST_SKIP() << reason;
    const ChildProcess bus = startBus();
    const ChildProcess resolved = startDaemon(Daemon::resolved);
    const std::string before = networkSnapshot();
    int refused = 0;
    {
        const TimerSignals signals;
        refused = refusals(200);
    }
    EXPECT_EQ(refused, 0) << "of 800";
    EXPECT_GT(sHandled, 200) << "they came too rarely to prove anything";
    expectNothingLeft(before);
}

TEST_F(SignalTest, RequestsThatRunResolvconfSucceedUnderAThousandSignalsASecond)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    setenv("PATH", (std::string("/tmp/tools:") + std::getenv("PATH")).c_str(), 1);
    std::filesystem::create_directories("/tmp/tools");
    std::ofstream("/tmp/tools/resolvconf") << "#!/bin/sh\ncat >/dev/null\n";
    ASSERT_EQ(chmod("/tmp/tools/resolvconf", 0755), 0);
    const std::string before = networkSnapshot();
    int refused = 0;
    {
        const TimerSignals signals;
        refused = refusals(20);
    }
    EXPECT_EQ(refused, 0) << "of 80";
    EXPECT_GT(sHandled, 20);
    expectNothingLeft(before);
}

TEST_F(SignalTest, TheMaskOfTheThreadIsAsBefore)
{
    sigset_t chosen;
    sigemptyset(&chosen);
    sigaddset(&chosen, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &chosen, nullptr);
    EXPECT_EQ(VkFirewallFullCtrl(filter), 0);
    EXPECT_NE(VkFirewallFullCtrl("{}"), 0);
    EXPECT_EQ(VkFirewallFullCtrl(noFilter), 0);
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int signal = 1; signal < SIGRTMIN; ++signal)
        EXPECT_EQ(sigismember(&after, signal), signal == SIGUSR2 ? 1 : 0) << signal;
}

TEST(SignalsBlockedTest, AllButThoseOfFaultsAreBlocked)
{
    sigset_t before;
    sigset_t during;
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    {
        const vknetconfig::SignalsBlocked blocked;
        pthread_sigmask(SIG_SETMASK, nullptr, &during);
    }
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (const int number : {SIGHUP, SIGINT, SIGALRM, SIGTERM, SIGCHLD, SIGUSR1, SIGRTMIN, SIGRTMAX})
        EXPECT_EQ(sigismember(&during, number), 1) << number;
    for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
        EXPECT_EQ(sigismember(&during, number), 0) << number;
    for (int number = 1; number <= SIGRTMAX; ++number)
        EXPECT_EQ(sigismember(&after, number), sigismember(&before, number)) << number;
}
