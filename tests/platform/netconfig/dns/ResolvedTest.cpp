// SPDX-License-Identifier: Apache-2.0
//
// DNS of a link in the real systemd-resolved, judged by resolvectl.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <thread>

#include "Daemons.h"
#include "RequestError.h"
#include "dns/Dns.h"
#include "handles/UniqueFd.h"

using namespace vknetconfig;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::StartsWith;
using testsupport::ChildProcess;
using testsupport::Daemon;
using testsupport::daemonTool;
using testsupport::runCommand;

namespace {

constexpr char linkName[] = "veth0";

DnsSettings settings(const std::vector<const char*>& servers, const std::vector<std::string>& domains, bool allTraffic)
{
    DnsSettings made{{}, domains, allTraffic};
    for (const char* address : servers)
        made.servers.push_back(wfoal::Ipv4Address{inet_addr(address)});
    return made;
}

const DnsSettings tunnel = settings({"10.8.0.1", "10.8.0.2"}, {"corp.test", "lab.test"}, false);

std::string errorOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const RequestError& error) {
        return error.what();
    }
    return "no error";
}

bool comesTrue(const std::function<bool()>& condition)
{
    const auto end = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < end) {
        if (condition()) return true;
        std::this_thread::sleep_for(20ms);
    }
    return condition();
}

std::size_t countOf(const char* folder)
{
    const std::filesystem::directory_iterator entries(folder);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

class ResolvedTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (const std::string reason = testsupport::daemonUnavailable(Daemon::resolved); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        bus = testsupport::startBus();
        resolved = testsupport::startDaemon(Daemon::resolved);
        makeLink();
    }
    void TearDown() override { runCommand({"ip", "link", "del", linkName}); }

    static void makeLink()
    {
        ASSERT_EQ(runCommand({"ip", "link", "add", linkName, "type", "veth", "peer", "name", "veth1"}).status, 0);
        runCommand({"ip", "link", "set", linkName, "addrgenmode", "none"});  // no address that comes later
        runCommand({"ip", "addr", "add", "10.8.0.9/24", "dev", linkName});
        runCommand({"ip", "link", "set", "veth1", "up"});
        runCommand({"ip", "link", "set", linkName, "up"});
        // It takes a moment to see that the link is up.
        ASSERT_TRUE(comesTrue([] { return status().find("LLMNR/IPv4") != std::string::npos; }));
    }
    static Link link() { return {static_cast<int>(if_nametoindex(linkName)), linkName}; }

    // What resolvectl says of the link, without its heading "Link 3 (veth0): ".
    static std::string shown(const char* what)
    {
        const std::string text = runCommand({daemonTool("resolvectl"), what, linkName}).output;
        const std::size_t end = text.find("):");
        std::string value = end == std::string::npos ? text : text.substr(end + 2);
        while (!value.empty() && value.back() == '\n')
            value.pop_back();
        return value.empty() ? value : value.substr(1);
    }
    static std::string status() { return runCommand({daemonTool("resolvectl"), "status", linkName}).output; }
    static void change(const std::vector<std::string>& words)
    {
        std::vector<std::string> command{daemonTool("resolvectl")};
        command.insert(command.end(), words.begin(), words.end());
        ASSERT_EQ(runCommand(command).status, 0);
    }
    // It would remember the link's settings over a restart; after an upgrade or a crash of its folder it does not.
    void restartForgetful()
    {
        resolved.stop();
        std::filesystem::remove_all("/run/systemd/resolve/netif");
        resolved = testsupport::startDaemon(Daemon::resolved);
    }

    ChildProcess bus;
    ChildProcess resolved;
    Dns dns;
};

}  // namespace

TEST_F(ResolvedTest, ServersAndSearchDomainsAreOnTheLink)
{
    dns.set(link(), tunnel, dns.prepare(link(), tunnel));
    EXPECT_EQ(shown("dns"), "10.8.0.1 10.8.0.2");
    EXPECT_EQ(shown("domain"), "corp.test lab.test");
    EXPECT_EQ(shown("default-route"), "no");
}

TEST_F(ResolvedTest, WithAllTrafficEveryQuestionGoesIntoTheTunnel)
{
    const DnsSettings all = settings({"10.8.0.1"}, {"corp.test"}, true);
    dns.set(link(), all, dns.prepare(link(), all));
    EXPECT_EQ(shown("dns"), "10.8.0.1");
    EXPECT_EQ(shown("domain"), "corp.test ~.");
    EXPECT_EQ(shown("default-route"), "yes");
}

TEST_F(ResolvedTest, PreparingChangesNothing)
{
    const std::string before = status();
    dns.prepare(link(), tunnel);
    EXPECT_EQ(status(), before);
}

TEST_F(ResolvedTest, TakingBackLeavesAnUntouchedLinkAsItWas)
{
    const std::string before = status();
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    ASSERT_NE(status(), before);
    dns.undo(prepared);
    EXPECT_EQ(status(), before);
    dns.undo(prepared);
    EXPECT_EQ(status(), before) << "twice";
}

TEST_F(ResolvedTest, TakingBackRestoresWhatWasThereBefore)
{
    change({"dns", linkName, "192.0.2.1:5353#dns.example", "2001:db8::53"});
    change({"domain", linkName, "before.test", "~route.test"});
    change({"default-route", linkName, "yes"});
    change({"llmnr", linkName, "no"});
    const std::string before = status();
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    EXPECT_EQ(shown("dns"), "10.8.0.1 10.8.0.2");
    dns.undo(prepared);
    EXPECT_EQ(status(), before);
    EXPECT_EQ(shown("dns"), "192.0.2.1:5353#dns.example 2001:db8::53");
}

TEST_F(ResolvedTest, AnotherProcessCanUndo)
{
    const std::string before = status();
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    Dns other;
    other.undo(prepared);
    EXPECT_EQ(status(), before);
}

TEST_F(ResolvedTest, ReplacingCarriesOverWhatWasThereFirst)
{
    change({"dns", linkName, "192.0.2.1"});
    const std::string before = status();
    const std::string first = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, first);
    const DnsSettings next = settings({"10.8.0.3"}, {}, true);
    const std::string second = dns.prepare(link(), next, {first});
    dns.set(link(), next, second);
    EXPECT_EQ(shown("dns"), "10.8.0.3");
    EXPECT_EQ(shown("domain"), "~.");
    dns.undo(second);
    EXPECT_EQ(status(), before);
}

TEST_F(ResolvedTest, WhatSomebodyElseHasSetSinceIsLeft)
{
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    change({"dns", linkName, "192.0.2.7"});
    change({"domain", linkName, "theirs.test"});
    dns.undo(prepared);
    EXPECT_EQ(shown("dns"), "192.0.2.7");
    EXPECT_EQ(shown("domain"), "theirs.test");
}

TEST_F(ResolvedTest, WhatOthersSetBesideServersAndDomainsIsLeft)
{
    change({"dnsovertls", linkName, "yes"});
    const std::string before = status();
    ASSERT_THAT(before, HasSubstr("+DNSOverTLS"));
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    dns.undo(prepared);
    EXPECT_EQ(status(), before);
    const std::string again = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, again);
    change({"llmnr", linkName, "no"});
    change({"nta", linkName, "internal.test"});
    dns.undo(again);
    EXPECT_THAT(status(), HasSubstr("-LLMNR -mDNS +DNSOverTLS"));
    EXPECT_EQ(shown("nta"), "internal.test");
    EXPECT_EQ(shown("dns"), "");
    EXPECT_EQ(shown("domain"), "");
}

TEST_F(ResolvedTest, ARefusedSettingLeavesWhatOthersSet)
{
    change({"dnsovertls", linkName, "yes"});
    const std::string before = status();
    const DnsSettings half = settings({"10.8.0.1"}, {std::string(70, 'a') + ".test"}, false);
    EXPECT_THAT(errorOf([&] { dns.set(link(), half, dns.prepare(link(), half)); }),
                StartsWith("ipv4.dns: systemd-resolved: domains: "));
    EXPECT_EQ(status(), before);
}

TEST_F(ResolvedTest, ARenamedLinkIsRestoredAsWell)
{
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    ASSERT_EQ(runCommand({"ip", "link", "set", linkName, "name", "renamed0"}).status, 0);
    dns.undo(prepared);
    const std::string left = runCommand({daemonTool("resolvectl"), "status", "renamed0"}).output;
    ASSERT_EQ(runCommand({"ip", "link", "set", "renamed0", "name", linkName}).status, 0);
    EXPECT_THAT(left, testing::Not(HasSubstr("10.8.0.1")));
    EXPECT_THAT(left, testing::Not(HasSubstr("corp.test")));
}

TEST_F(ResolvedTest, WhatIsUndoneWhileTheServiceIsDownIsRemovedWhenItIsUp)
{
    const std::string before = status();
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    resolved.stop();
    EXPECT_EQ(errorOf([&] { dns.undo(prepared); }), "no error");
    EXPECT_TRUE(dns.isPending(prepared));
    resolved = testsupport::startDaemon(Daemon::resolved);  // it has kept the settings of the link
    EXPECT_TRUE(comesTrue([] { return shown("dns").empty() && shown("domain").empty(); })) << status();
    dns.undo(prepared);
    EXPECT_FALSE(dns.isPending(prepared));
    EXPECT_TRUE(comesTrue([&] { return status() == before; })) << status();
}

TEST_F(ResolvedTest, WhatIsPendingIsOverWhenTheLinkIsGone)
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

TEST_F(ResolvedTest, WhatIsNoLongerWantedIsNotSetAgain)
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

TEST_F(ResolvedTest, ASettingThatIsRefusedChangesNothing)
{
    const std::string before = status();
    const DnsSettings refused = settings({"0.0.0.0"}, {"corp.test"}, false);
    EXPECT_THAT(errorOf([&] { dns.set(link(), refused, dns.prepare(link(), refused)); }),
                StartsWith("ipv4.dns: systemd-resolved: servers: "));
    EXPECT_EQ(status(), before);
    // Its servers are taken, its domain is not.
    const DnsSettings half = settings({"10.8.0.1"}, {std::string(70, 'a') + ".test"}, false);
    EXPECT_THAT(errorOf([&] { dns.set(link(), half, dns.prepare(link(), half)); }),
                StartsWith("ipv4.dns: systemd-resolved: domains: "));
    EXPECT_EQ(status(), before);
}

TEST_F(ResolvedTest, AnUnknownLinkIsAnError)
{
    EXPECT_THAT(errorOf([&] {
                    dns.prepare({4711, "absent0"}, tunnel);
                }),
                HasSubstr("systemd-resolved does not know the interface absent0"));
}

TEST_F(ResolvedTest, TakingBackFromAVanishedLinkSucceeds)
{
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    runCommand({"ip", "link", "del", linkName});
    EXPECT_EQ(errorOf([&] { dns.undo(prepared); }), "no error");
    makeLink();
    const std::string before = status();
    EXPECT_EQ(errorOf([&] { dns.undo(prepared); }), "no error");
    EXPECT_EQ(status(), before) << "another interface of this name";
}

TEST_F(ResolvedTest, TakingBackWithoutTheServiceOrTheBusSucceeds)
{
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    resolved.stop();
    EXPECT_EQ(errorOf([&] { dns.undo(prepared); }), "no error");
    bus.stop();
    EXPECT_EQ(errorOf([&] { dns.undo(prepared); }), "no error");
}

TEST_F(ResolvedTest, ARestartOfTheServiceSetsTheServersAgain)
{
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    restartForgetful();
    EXPECT_TRUE(comesTrue([] { return shown("domain") == "corp.test lab.test"; }));
    EXPECT_EQ(shown("dns"), "10.8.0.1 10.8.0.2");
    dns.undo(prepared);
    EXPECT_EQ(shown("dns"), "");
}

TEST_F(ResolvedTest, WithoutTheWatcherARestartForgets)
{
    {
        Dns shortLived;
        shortLived.set(link(), tunnel, shortLived.prepare(link(), tunnel));
    }
    restartForgetful();
    std::this_thread::sleep_for(1s);  // the watcher needs a few milliseconds
    EXPECT_EQ(shown("dns"), "");
}

TEST_F(ResolvedTest, ARestartOfTheBusIsSurvived)
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

// Its names are given anew, so systemd-resolved often has the one that it had on the bus before.
TEST_F(ResolvedTest, ARestartOfTheBusBeforeTheWatcherListensIsSurvived)
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

TEST_F(ResolvedTest, AfterFiveTimesInAMinuteItGivesWay)
{
    dns.set(link(), tunnel, dns.prepare(link(), tunnel));
    for (int count = 0; count < 5; ++count) {
        restartForgetful();
        ASSERT_TRUE(comesTrue([] { return shown("domain") == "corp.test lab.test"; })) << count;
    }
    restartForgetful();
    std::this_thread::sleep_for(2s);
    EXPECT_EQ(shown("dns"), "");
}

TEST_F(ResolvedTest, TheThreadEndsWithTheConfiguration)
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

TEST_F(ResolvedTest, ASilentBusHoldsNobodyUpForLong)
{
    const UniqueFd silent(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, "/run/silent"};
    ASSERT_EQ(bind(silent.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(silent.get(), 5), 0);
    const std::string real = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/silent", 1);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THAT(errorOf([&] { dns.prepare(link(), tunnel); }), StartsWith("ipv4.dns: no resolver takes it"));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 8s);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", real.c_str(), 1);
}

TEST_F(ResolvedTest, AStoppedServiceHoldsNobodyUpForLong)
{
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    resolved.sendSignal(SIGSTOP);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THAT(errorOf([&] { dns.undo(prepared); }), HasSubstr("ipv4.dns: systemd-resolved: "));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 12s);
    resolved.sendSignal(SIGCONT);
    EXPECT_EQ(errorOf([&] { dns.undo(prepared); }), "no error");
    EXPECT_EQ(shown("dns"), "");
}
