// SPDX-License-Identifier: Apache-2.0
//
// DNS of a link in the real systemd-resolved, judged by resolvectl.
#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "ResolvedFixture.h"
#include "resolved/ResolvedManager.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

using ResolvedTest = ResolvedFixture;

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

TEST_F(ResolvedTest, UndoLeavesAnUntouchedLinkAsItWas)
{
    change({"llmnr", "veth1", "no"});  // what other links have does not count
    const std::string before = status();
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    ASSERT_NE(status(), before);
    dns.undo(prepared);
    EXPECT_EQ(status(), before);
    dns.undo(prepared);
    EXPECT_EQ(status(), before) << "twice";
    change({"dns", linkName, "192.0.2.1"});
    EXPECT_EQ(shown("default-route"), "yes") << "it follows from the servers";
}

TEST_F(ResolvedTest, UndoRestoresWhatWasThereBefore)
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
    EXPECT_THAT(status(), AllOf(HasSubstr("-LLMNR "), HasSubstr(" +DNSOverTLS")));
    EXPECT_EQ(shown("nta"), "internal.test");
    EXPECT_EQ(shown("dns"), "");
    EXPECT_EQ(shown("domain"), "");
}

TEST_F(ResolvedTest, ARefusedSettingLeavesWhatOthersSet)
{
    change({"dnsovertls", linkName, "yes"});
    const std::string before = status();
    const DnsSettings half = settings({"10.8.0.1"}, {std::string(70, 'a') + ".test"}, false);
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { dns.set(link(), half, dns.prepare(link(), half)); }),
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

TEST_F(ResolvedTest, ASettingThatIsRefusedChangesNothing)
{
    const std::string before = status();
    const DnsSettings refused = settings({"0.0.0.0"}, {"corp.test"}, false);
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { dns.set(link(), refused, dns.prepare(link(), refused)); }),
                StartsWith("ipv4.dns: systemd-resolved: servers: "));
    EXPECT_EQ(status(), before);
    // Its servers are taken, its domain is not.
    const DnsSettings half = settings({"10.8.0.1"}, {std::string(70, 'a') + ".test"}, false);
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { dns.set(link(), half, dns.prepare(link(), half)); }),
                StartsWith("ipv4.dns: systemd-resolved: domains: "));
    EXPECT_EQ(status(), before);
}

TEST_F(ResolvedTest, AnUnknownLinkIsAnError)
{
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] {
                    dns.prepare({4711, "absent0"}, tunnel);
                }),
                HasSubstr("systemd-resolved does not know the interface absent0"));
}

// The bus numbers its connections; this one counts too.
int connectionsSoFar()
{
    const SdBusPtr connection = wfoal::openSystemBus();
    const char* name = nullptr;
    if (sd_bus_get_unique_name(connection.get(), &name) < 0) return -1;
    return std::atoi(std::strchr(name, '.') + 1);
}

TEST_F(ResolvedTest, ARequestTakesOneConnection)
{
    const int atFirst = connectionsSoFar();
    dns.set(link(), tunnel, dns.prepare(link(), tunnel));
    // With the watcher's, which comes a little later, the two, and one for each look.
    int looks = 0;
    ASSERT_TRUE(comesTrue([&] { return connectionsSoFar() == atFirst + 2 + ++looks; }));
    const int before = connectionsSoFar();
    dns.set(link(), tunnel, dns.prepare(link(), tunnel));
    EXPECT_EQ(connectionsSoFar(), before + 2);
}

// Sees every method that is called of systemd-resolved.
class CallMonitor {
public:
    CallMonitor()
    {
        sd_bus* made = nullptr;
        EXPECT_GE(sd_bus_new(&made), 0);
        mBus.reset(made);
        sd_bus_set_address(made, std::getenv("DBUS_SYSTEM_BUS_ADDRESS"));
        sd_bus_set_bus_client(made, 1);
        sd_bus_set_monitor(made, 1);
        EXPECT_GE(sd_bus_start(made), 0);
        EXPECT_GE(sd_bus_call_method(made, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                     "org.freedesktop.DBus.Monitoring", "BecomeMonitor", nullptr, nullptr, "asu", 1,
                                     "type='method_call',destination='org.freedesktop.resolve1'", 0),
                  0);
    }

    // Those so far, up to one of its own.
    std::vector<std::string> calls()
    {
        const SdBusPtr own = wfoal::openSystemBus();
        sd_bus_call_method(own.get(), wfoal::resolvedName, "/", "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr,
                           "");
        const char* ownName = nullptr;
        sd_bus_get_unique_name(own.get(), &ownName);
        std::vector<std::string> members;
        while (true) {
            sd_bus_message* received = nullptr;
            const int result = sd_bus_process(mBus.get(), &received);
            const SdBusMessagePtr message(received);
            if (result < 0 || (result == 0 && sd_bus_wait(mBus.get(), 10'000'000) <= 0)) return {"no end"};
            if (!message || sd_bus_message_is_method_call(received, nullptr, nullptr) <= 0) continue;
            if (std::strcmp(sd_bus_message_get_sender(received), ownName) == 0) return members;
            members.emplace_back(sd_bus_message_get_member(received));
        }
    }

private:
    SdBusPtr mBus;
};

TEST_F(ResolvedTest, ARequestAsksForTheLinkOnceAndSetsThreeThings)
{
    CallMonitor monitor;
    dns.set(link(), tunnel, dns.prepare(link(), tunnel));
    EXPECT_THAT(monitor.calls(),
                testing::ElementsAre("GetAll", "SetLinkDNSEx", "SetLinkDomains", "SetLinkDefaultRoute"));
}

TEST_F(ResolvedTest, ARequestHasNoConnectionWhenItIsOver)
{
    const auto countOfFiles = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    const auto before = countOfFiles();
    {
        const Dns::Request request(dns);
        dns.prepare(link(), tunnel);
        EXPECT_GT(countOfFiles(), before);  // one, or two with newer versions of libsystemd
    }
    EXPECT_EQ(countOfFiles(), before);
}

TEST_F(ResolvedTest, UndoFromAVanishedLinkSucceeds)
{
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    runCommand({"ip", "link", "del", linkName});
    EXPECT_EQ(testsupport::errorOf<RequestError>([&] { dns.undo(prepared); }), "no error");
    makeLink();
    const std::string before = status();
    EXPECT_EQ(testsupport::errorOf<RequestError>([&] { dns.undo(prepared); }), "no error");
    EXPECT_EQ(status(), before) << "another interface of this name";
}

TEST_F(ResolvedTest, UndoWithoutTheServiceOrTheBusSucceeds)
{
    const std::string prepared = dns.prepare(link(), tunnel);
    dns.set(link(), tunnel, prepared);
    resolved.stop();
    EXPECT_EQ(testsupport::errorOf<RequestError>([&] { dns.undo(prepared); }), "no error");
    bus.stop();
    EXPECT_EQ(testsupport::errorOf<RequestError>([&] { dns.undo(prepared); }), "no error");
}

}  // namespace
