// SPDX-License-Identifier: Apache-2.0
//
// What vpnoalctl status concludes from the undo log's entries, the kernel's state and the resolver's answers.
#include <gmock/gmock.h>

#include "Json.h"
#include "status/Comparison.h"
#include "status/Report.h"
#include "status/ResolverState.h"

namespace vpnoalctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char dnsLine[] = "resolved 7 norvatun0 10.8.0.1/0/ corp.test yes - - yes";

in_addr_t address(const char* text)
{
    return inet_addr(text);
}

wfoal::Route route(const char* destination, std::uint8_t prefix, const char* gateway = "10.8.0.1",
                   std::uint32_t metric = 0)
{
    wfoal::Route made;
    made.destination = address(destination);
    made.prefix = prefix;
    made.gateway = address(gateway);
    made.metric = metric;
    return made;
}

// A tunnel that has everything.
class StatusComparisonTest : public testing::Test {
protected:
    StatusComparisonTest()
    {
        InstalledInterface tunnel;
        tunnel.owner = living;
        tunnel.record.index = 7;
        tunnel.record.name = "norvatun0";
        tunnel.record.addresses = {{address("10.8.0.2"), 24}};
        tunnel.record.routes = {route("10.20.0.0", 16), route("172.16.5.4", 32, "10.8.0.7", 20)};
        tunnel.record.dns = {dnsLine};
        installed.interfaces = {tunnel};
        installed.filters = {{living, "vpn.vpnoal"}};
        wfoal::GuardRules rules;
        rules.ifName = "norvatun0";
        rules.rejectsIpv6 = true;
        installed.guards = {{living, rules}};

        FoundInterface& found = kernel.interfaces[7];
        found.name = "norvatun0";
        found.isUp = true;
        found.mtu = 1380;
        found.received = {3, 300};
        found.sent = {4, 400};
        found.addresses = tunnel.record.addresses;
        found.routes = tunnel.record.routes;
        std::sort(found.routes.begin(), found.routes.end());
        const FilterChain jumps{1, false};
        kernel.tables["vpn.vpnoal"] = {true, {{"_input", jumps}, {"_output", jumps}, {"_forward", jumps}}, {}};
        kernel.tables["vknetconfig-guard-norvatun0"] = {
            true, {{"_output", {3, true}}, {"_forward", {2, true}}, {"beside", {8, false}}}, {}};
        dns[dnsLine] = {"systemd-resolved", "", {{"server", "10.8.0.1", true}, {"domain", "corp.test", true}}};
    }

    Status compared() const { return compare(installed, kernel, dns); }
    std::string summary() const { return summaryOf(compared()); }

    const Owner living{Owner::State::Lives, 4711, "agent", 1};
    const Owner ended{Owner::State::Ended, 4711, "", 1};
    Installed installed;
    KernelState kernel;
    DnsStates dns;
};

TEST_F(StatusComparisonTest, EverythingIsThere)
{
    EXPECT_EQ("applied", summary());
    EXPECT_THAT(compared().notes, IsEmpty());
    EXPECT_TRUE(isApplied(compared()));
}

TEST_F(StatusComparisonTest, NothingIsApplied)
{
    installed = {};
    kernel.tables.clear();
    EXPECT_EQ("nothing is applied", summary());
    EXPECT_FALSE(isApplied(compared()));
}

TEST_F(StatusComparisonTest, MissingRoutesAreCounted)
{
    kernel.interfaces[7].routes.pop_back();
    EXPECT_EQ("applied, but 1 route is missing", summary());
    kernel.interfaces[7].routes.clear();
    EXPECT_EQ("applied, but 2 routes are missing", summary());
}

TEST_F(StatusComparisonTest, RouteWithAnotherGatewayOrMetricIsNotTheInstalledOne)
{
    kernel.interfaces[7].routes = {route("10.20.0.0", 16, "10.8.0.9"), route("172.16.5.4", 32, "10.8.0.7", 21)};
    EXPECT_EQ("applied, but 2 routes are missing", summary());
}

TEST_F(StatusComparisonTest, EachKindOfFaultIsNamed)
{
    kernel.interfaces[7].isUp = false;
    kernel.interfaces[7].addresses.clear();
    kernel.interfaces[7].routes.pop_back();
    dns[dnsLine].settings.front().isThere = false;
    kernel.tables.clear();
    EXPECT_THAT(compared().faults,
                ElementsAre("norvatun0 is down", "1 address is missing", "1 route is missing",
                            "1 DNS setting is missing", "the packet filter is missing", "the guard is missing"));
    EXPECT_THAT(summary(), testing::StartsWith("applied, but norvatun0 is down, 1 address is missing, "));
    EXPECT_THAT(summary(), testing::EndsWith(", the packet filter is missing and the guard is missing"));
}

TEST_F(StatusComparisonTest, InterfaceThatIsGoneIsOneFault)
{
    kernel.interfaces.clear();
    EXPECT_EQ("applied, but the interface norvatun0 is gone", summary());
}

TEST_F(StatusComparisonTest, LaterInterfaceWithTheSameIndexIsNotTheInstalledOne)
{
    kernel.interfaces[7].name = "eth9";
    EXPECT_EQ("applied, but the interface norvatun0 is gone", summary());
}

TEST_F(StatusComparisonTest, PhysicalInterfacesAreComparedAsWellAndNamed)
{
    InstalledInterface physical;
    physical.owner = living;
    physical.record.index = 2;
    physical.record.name = "eth0";
    physical.record.routes = {route("192.0.2.7", 32, "192.168.7.1")};
    installed.interfaces.push_back(physical);
    kernel.interfaces[2].name = "eth0";
    kernel.interfaces[2].isUp = true;
    EXPECT_EQ("applied, but 1 route of eth0 is missing", summary());
    kernel.interfaces[2].routes = physical.record.routes;
    EXPECT_EQ("applied", summary());
}

TEST_F(StatusComparisonTest, TableOfAnotherProgramIsNotOurs)
{
    kernel.tables["vpn.vpnoal"].isOurs = false;
    EXPECT_EQ("applied, but the packet filter is another program's", summary());
}

TEST_F(StatusComparisonTest, TableWithoutRulesInABaseChainGuardsNothing)
{
    kernel.tables["vknetconfig-guard-norvatun0"].chains.erase("_output");
    EXPECT_EQ("applied, but the guard has lost its rules", summary());
    kernel.tables["vpn.vpnoal"].chains.erase("_input");
    EXPECT_EQ("applied, but the packet filter has lost its rules and the guard has lost its rules", summary());
}

TEST_F(StatusComparisonTest, GuardThatRejectsNothingGuardsNothing)
{
    kernel.tables["vknetconfig-guard-norvatun0"].chains["_forward"].rejectsRest = false;
    EXPECT_EQ("applied, but the guard has lost its rules", summary());
}

TEST_F(StatusComparisonTest, TableWithoutAnEntryIsNamed)
{
    installed = {};
    kernel.tables.erase("vknetconfig-guard-norvatun0");
    EXPECT_EQ("nothing is applied, but the undo log has no entry of the table vpn.vpnoal", summary());
    kernel.tables["vpn.vpnoal"].isOurs = false;
    EXPECT_EQ("nothing is applied", summary()) << "another program may have a table of this name";
}

TEST_F(StatusComparisonTest, OwnerThatHasEndedIsANoteAndNoFault)
{
    installed.interfaces.front().owner = ended;
    installed.filters.front().owner = ended;
    installed.guards.front().owner = ended;
    EXPECT_EQ("applied", summary());
    EXPECT_THAT(compared().notes,
                ElementsAre("the owner, process 4711, has ended; the next request or 'vpnoalctl restore' removes it"));
}

TEST_F(StatusComparisonTest, StrictGuardStaysUntilARestore)
{
    installed.interfaces.clear();
    installed.filters.clear();
    kernel.tables.erase("vpn.vpnoal");
    installed.guards.front().owner = ended;
    installed.guards.front().rules.rejectsIpv4 = true;
    EXPECT_EQ("only the guard is applied", summary());
    EXPECT_THAT(compared().notes,
                ElementsAre("the owner, process 4711, has ended; 'vpnoalctl restore' removes the guard"));
}

TEST_F(StatusComparisonTest, ResolverThatDoesNotAnswerHasNoSettings)
{
    dns[dnsLine] = {"resolvconf", "resolvconf has no entry", {}};
    EXPECT_EQ("applied, but the DNS settings are missing", summary());
}

TEST_F(StatusComparisonTest, PendingRemovalOfDnsSettingsIsNoConfiguration)
{
    installed.filters.clear();
    installed.guards.clear();
    kernel.tables.clear();
    InstalledInterface& pending = installed.interfaces.front();
    pending.owner = {};
    pending.record.addresses.clear();
    pending.record.routes.clear();
    EXPECT_FALSE(isApplied(compared()));
    EXPECT_EQ("nothing is applied, but the DNS settings of norvatun0 are still to be removed", summary());
}

TEST_F(StatusComparisonTest, DnsIsComparedSettingBySetting)
{
    const wfoal::LinkChange change =
        wfoal::LinkChange::decode("7 norvatun0 10.8.0.1/0/,10.8.0.2/0/ corp.test,~. no - - yes");
    wfoal::LinkDns now = change.set;
    now.servers.pop_back();
    now.domains.pop_back();
    now.defaultRoute = true;
    std::vector<std::string> texts;
    for (const DnsSetting& one : compareDns(change.set, now))
        texts.push_back(std::string(one.kind) + " " + one.value + (one.isThere ? "" : " is missing"));
    EXPECT_THAT(texts, ElementsAre("server 10.8.0.1", "server 10.8.0.2 is missing", "domain corp.test",
                                   "domain ~. is missing", "default route no is missing"));
}

TEST_F(StatusComparisonTest, FileOfResolvconfIsRead)
{
    std::vector<std::string> texts;
    for (const DnsSetting& one : settingsIn("nameserver 10.8.0.1\n# comment\nsearch corp.test lab.test\noptions x\n"))
        texts.push_back(std::string(one.kind) + " " + one.value);
    EXPECT_THAT(texts, ElementsAre("server 10.8.0.1", "domain corp.test", "domain lab.test"));
}

TEST_F(StatusComparisonTest, EntriesAreDecodedAndTheTunnelComesFirst)
{
    const Installed decoded =
        decode({{"firewall-vpn.vpnoal", "table\n", "", living},
                {"guard-norvatun0", "interface norvatun0\nreject ipv6\n", "", living},
                {"interface-eth0", "interface 2 eth0\nroute 70200c0/32 107a8c0 0\nend\n", "", living},
                {"interface-norvatun0", "interface 7 norvatun0\nend\n", "", living},
                {"interface-wwan0", "interface 9 wwan0\n", "", living},
                {"guard-wwan0", "", "it has an unknown version", living},
                {"other-thing", "", "", living}});
    ASSERT_EQ(2u, decoded.interfaces.size());
    EXPECT_EQ("norvatun0", decoded.interfaces[0].record.name);
    EXPECT_EQ("eth0", decoded.interfaces[1].record.name);
    EXPECT_EQ("vpn.vpnoal", decoded.filters.at(0).table);
    EXPECT_TRUE(decoded.guards.at(0).rules.rejectsIpv6);
    EXPECT_THAT(decoded.faults,
                ElementsAre("the entry interface-wwan0 cannot be read: undo log: an entry has no end",
                            "the entry guard-wwan0 cannot be read: undo log: it has an unknown version",
                            "the entry other-thing cannot be read: undo log: it is about nothing that is known"));
}

TEST_F(StatusComparisonTest, MachinesGetObjects)
{
    kernel.interfaces[7].routes.pop_back();
    kernel.tables["vpn.vpnoal"].counted = PacketCount{5, 500};
    const std::string text = toText(statusToJson(compared()));
    EXPECT_THAT(text, HasSubstr(R"({"state":"incomplete","summary":"applied, but 1 route is missing",)"
                                R"("faults":["1 route is missing"],"notes":[],)"));
    EXPECT_THAT(text, HasSubstr(R"("owner":{"state":"running","process":4711,"program":"agent","since":")"));
    EXPECT_THAT(text, HasSubstr(R"("mtu":1380,"received":{"packets":3,"bytes":300},"sent":{"packets":4,"bytes":400})"));
    EXPECT_THAT(text,
                HasSubstr(R"("addresses":[{"local":"10.8.0.2","prefixlen":24,"present":true,"installed":true}])"));
    EXPECT_THAT(
        text, HasSubstr(R"("routes":[{"dst":"10.20.0.0/16","gateway":"10.8.0.1","dev":"norvatun0","present":true},)"
                        R"({"dst":"172.16.5.4","gateway":"10.8.0.7","dev":"norvatun0","metric":20,"present":false}])"));
    EXPECT_THAT(text, HasSubstr(R"("rules":3,"counted":{"packets":5,"bytes":500})"));
    EXPECT_THAT(text, HasSubstr(R"("rejects":["ipv6"],"bypass":[],"connections":[])"));
}

TEST_F(StatusComparisonTest, MachinesGetWhatTheGuardLetsThrough)
{
    installed.guards.front().rules = wfoal::GuardRules::decode(
        "interface norvatun0\nreject ipv4\nreject ipv6\n"
        "bypass 192.0.2.0/24\nbypass 2001:db8::/32\n"
        "connection 6 443 198.51.100.2/32\nconnection 17 51820 2001:db8::2/128\n");
    EXPECT_THAT(toText(statusToJson(compared())),
                HasSubstr(R"("rejects":["ipv4","ipv6"],"bypass":["192.0.2.0/24","2001:db8::/32"],)"
                          R"("connections":["tcp 198.51.100.2 port 443","udp 2001:db8::2 port 51820"])"));
}

TEST_F(StatusComparisonTest, ResolverOfAnEntryThatMakesNoSenseIsNotAsked)
{
    EXPECT_THAT(readDnsState("resolved nonsense").fault, HasSubstr("undo log: "));
    EXPECT_EQ("the entry names no resolver that is known", readDnsState("other 7 norvatun0").fault);
}

TEST_F(StatusComparisonTest, PeopleSeeMissingRoutesFirstAndTenLinesAtMost)
{
    wfoal::InterfaceRecord& record = installed.interfaces.front().record;
    record.routes.clear();
    for (std::uint8_t i = 0; i < 40; ++i)
        record.routes.push_back(route(("10.1." + std::to_string(i) + ".0").c_str(), 24));
    kernel.interfaces[7].routes = record.routes;
    std::sort(kernel.interfaces[7].routes.begin(), kernel.interfaces[7].routes.end());
    auto& routes = kernel.interfaces[7].routes;
    routes.erase(std::remove(routes.begin(), routes.end(), route("10.1.39.0", 24)), routes.end());
    testing::internal::CaptureStdout();
    Output output(stdout, false, false);
    printStatus(output, compared());
    output.flush();
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_THAT(text, HasSubstr("\nroute      10.1.39.0/24 via 10.8.0.1 (is missing)\n"
                                "           10.1.0.0/24 via 10.8.0.1\n"));
    EXPECT_THAT(text, HasSubstr("\n           and 30 more\n"));
    EXPECT_THAT(text, Not(HasSubstr("10.1.20.0")));
}

}  // namespace
}  // namespace vpnoalctl
