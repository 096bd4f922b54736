// SPDX-License-Identifier: Apache-2.0
//
// DNS of a link while systemd-resolved or the bus restarts, is gone, or does not answer.
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <future>
#include <mutex>
#include <thread>

#include "Files.h"
#include "ResolvedFixture.h"
#include "VkLogLib.h"
#include "handles/UniqueFd.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

using ResolvedRestartTest = ResolvedFixture;

std::size_t countOf(const char* folder)
{
    const std::filesystem::directory_iterator entries(folder);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

TEST_F(ResolvedRestartTest, WhatIsUndoneWhileTheServiceIsDownIsRemovedWhenItIsUp)
{
    const std::string before = status();
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    resolved.stop();
    EXPECT_EQ(testsupport::errorOf<RequestError>([&] { dns.undo(prepared); }), "no error");
    EXPECT_TRUE(dns.isPending(prepared));
    resolved = testsupport::startDaemon(Daemon::resolved);  // it has kept the settings of the link
    EXPECT_TRUE(comesTrue([] { return shown("dns").empty() && shown("domain").empty(); })) << status();
    dns.undo(prepared);
    EXPECT_FALSE(dns.isPending(prepared));
    EXPECT_TRUE(comesTrue([&] { return status() == before; })) << status();
}

TEST_F(ResolvedRestartTest, WhatIsPendingIsOverWhenTheLinkIsGone)
{
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    resolved.stop();
    dns.undo(prepared);
    EXPECT_TRUE(dns.isPending(prepared));
    runCommand({"ip", "link", "del", linkName});
    dns.undo(prepared);
    EXPECT_FALSE(dns.isPending(prepared));
}

TEST_F(ResolvedRestartTest, WhatIsNoLongerWantedIsNotSetAgain)
{
    std::atomic<bool> isWanted{true};
    std::atomic<int> asked{0};
    {
        Dns maintaining;
        maintaining.set(link(), tunnel, maintaining.prepare(link(), tunnel), [&] {
            ++asked;
            return isWanted.load();
        });
        restartForgetful();
        EXPECT_TRUE(comesTrue([] { return shown("domain") == "corp.test lab.test"; }));
        isWanted = false;
        asked = 0;
        restartForgetful();
        EXPECT_TRUE(comesTrue([&] { return asked > 0; }));
    }  // waits for the watcher
    EXPECT_EQ(asked, 1) << "the answer counts once and for all";
    EXPECT_EQ(shown("dns"), "");
}

TEST_F(ResolvedRestartTest, ARestartOfTheServiceSetsTheServersAgain)
{
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    restartForgetful();
    EXPECT_TRUE(comesTrue([] { return shown("domain") == "corp.test lab.test"; }));
    EXPECT_EQ(shown("dns"), "10.8.0.1 10.8.0.2");
    dns.undo(prepared);
    EXPECT_EQ(shown("dns"), "");
}

// The watcher is about to set the first ones again while the second ones are set.
TEST_F(ResolvedRestartTest, SettingsAreNotReplacedByThoseThatTheyReplace)
{
    const DnsSettings other = settings({"10.8.0.7"}, {"other.test"}, false);
    const std::string before = status();
    std::promise<void> begun;
    std::promise<void> over;
    std::once_flag once;
    const std::string first = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, first, [&] {
        std::call_once(once, [&] {
            begun.set_value();
            over.get_future().wait();
        });
        return true;
    });
    resolved.stop();
    resolved = testsupport::startDaemon(Daemon::resolved);
    ASSERT_EQ(std::future_status::ready, begun.get_future().wait_for(10s)) << "the watcher does not look";
    const std::string second = dns.prepare(link(), other, {first});
    std::thread setter([&] { dns.set(link(), other, second); });
    comesTrue([] { return shown("domain") == "other.test"; }, 1s);  // not while the watcher is at work
    over.set_value();
    setter.join();
    EXPECT_TRUE(comesTrue([] { return shown("domain") == "other.test"; })) << status();
    EXPECT_EQ("10.8.0.7", shown("dns"));
    dns.undo(second);
    EXPECT_EQ(before, status());
}

TEST_F(ResolvedRestartTest, WithoutTheWatcherARestartForgets)
{
    std::thread([] {}).join();  // the thread sanitizer answers the first thread with one of its own
    const std::size_t threads = countOf("/proc/self/task");
    {
        Dns shortLived;
        shortLived.set(link(), tunnel, shortLived.prepare(link(), tunnel));
        EXPECT_EQ(countOf("/proc/self/task"), threads + 1);
    }
    EXPECT_EQ(countOf("/proc/self/task"), threads) << "nobody is left who would set them again";
    restartForgetful();
    EXPECT_EQ(shown("dns"), "");
}

TEST_F(ResolvedRestartTest, ARestartOfTheBusIsSurvived)
{
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    resolved.stop();
    bus.stop();
    std::filesystem::remove_all("/run/systemd/resolve/netif");
    bus = testsupport::startBus();
    resolved = testsupport::startDaemon(Daemon::resolved);
    EXPECT_TRUE(comesTrue([] { return shown("domain") == "corp.test lab.test"; }));
    EXPECT_EQ(shown("dns"), "10.8.0.1 10.8.0.2");
}

TEST_F(ResolvedRestartTest, AMissingBusIsToldToThoseWhoDebug)
{
    setenv("VKLOG_TARGET", "stderr", 1);
    VkLogContext* log = nullptr;
    VkLogGetContext("vknetconfig", &log);
    log->level = 7;
    dns.set(link(), tunnel, dns.prepare(link(), tunnel));
    testing::internal::CaptureStderr();
    bus.stop();
    comesTrue([] { return testsupport::contentOf("/proc/self/fd/2").find("not watching") != std::string::npos; });
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                StartsWith("vknetconfig[7]: not watching systemd-resolved for now: "));
}

// Its names are given anew, so systemd-resolved often has the one that it had on the bus before.
TEST_F(ResolvedRestartTest, ARestartOfTheBusBeforeTheWatcherListensIsSurvived)
{
    for (int round = 0; round < 3; ++round) {
        Dns configuration;
        configuration.set(link(), tunnel, configuration.prepare(link(), tunnel));
        bus.sendSignal(SIGKILL);
        bus.wait();
        resolved.stop();
        std::filesystem::remove_all("/run/systemd/resolve/netif");
        bus = testsupport::startBus();
        resolved = testsupport::startDaemon(Daemon::resolved);
        ASSERT_TRUE(comesTrue([] { return shown("domain") == "corp.test lab.test"; })) << "round " << round;
    }
}

TEST_F(ResolvedRestartTest, AfterFiveTimesInAMinuteItGivesWay)
{
    // The watcher removes what is pending, sets again and counts under one lock, which undo() takes.
    const Link peer{static_cast<int>(if_nametoindex("veth1")), "veth1"};
    const DnsSettings others = settings({"10.8.0.3"}, {"other.test"}, false);
    const std::string prepared = dns.prepare(peer, others);
    dns.set(link(), tunnel, dns.prepare(link(), tunnel));
    for (int count = 0; count < 5; ++count) {
        restartForgetful();
        ASSERT_TRUE(comesTrue([] { return shown("domain") == "corp.test lab.test"; })) << count;
        dns.undo(prepared);
    }
    dns.set(peer, others, prepared);
    resolved.stop();
    dns.undo(prepared);
    ASSERT_TRUE(dns.isPending(prepared));
    std::filesystem::remove("/run/systemd/resolve/netif/" + std::to_string(link().index));
    resolved = testsupport::startDaemon(Daemon::resolved);
    ASSERT_TRUE(comesTrue([&] {
        return runCommand({daemonTool("resolvectl"), "domain", peer.name}).output.find("other.test") ==
               std::string::npos;
    }));
    dns.undo(prepared);
    EXPECT_EQ(shown("dns"), "");
}

TEST_F(ResolvedRestartTest, TheThreadEndsWithTheConfiguration)
{
    std::thread([] {}).join();  // the thread sanitizer answers the first thread with one of its own
    const std::size_t threads = countOf("/proc/self/task");
    const std::size_t files = countOf("/proc/self/fd");
    const std::string prepared = dns.prepare(link(), tunnel);
    EXPECT_EQ(countOf("/proc/self/task"), threads);
    dns.set(link(), tunnel, prepared);
    EXPECT_EQ(countOf("/proc/self/task"), threads + 1);
    const std::string again = dns.prepare(link(), tunnel, {prepared});
    dns.set(link(), tunnel, again);
    EXPECT_EQ(countOf("/proc/self/task"), threads + 1) << "one thread, however often";
    dns.undo(again);
    EXPECT_EQ(countOf("/proc/self/task"), threads);
    EXPECT_EQ(countOf("/proc/self/fd"), files);
}

TEST_F(ResolvedRestartTest, ASilentBusHoldsNobodyUpForLong)
{
    const UniqueFd silent(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, "/run/silent"};
    ASSERT_EQ(bind(silent.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(silent.get(), 5), 0);
    const std::string real = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/silent", 1);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { dns.prepare(link(), tunnel); }),
                StartsWith("ipv4.dns: no resolver takes it"));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 8s);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", real.c_str(), 1);
}

TEST_F(ResolvedRestartTest, AStoppedServiceHoldsNobodyUpForLong)
{
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    resolved.sendSignal(SIGSTOP);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { dns.undo(prepared); }),
                HasSubstr("ipv4.dns: systemd-resolved: "));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 12s);
    resolved.sendSignal(SIGCONT);
    EXPECT_EQ(testsupport::errorOf<RequestError>([&] { dns.undo(prepared); }), "no error");
    EXPECT_EQ(shown("dns"), "");
}

}  // namespace
