// SPDX-License-Identifier: Apache-2.0
#include "FirewallText.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include "NftSession.h"

using namespace vknetconfig;
using testing::HasSubstr;

namespace {

Network network(const char* address, std::uint8_t prefix)
{
    Network made;
    EXPECT_EQ(inet_pton(AF_INET, address, &made.address), 1);
    made.prefix = prefix;
    return made;
}

// What stands in the chain of the rules.
std::string linesOf(const FirewallRule& rule)
{
    const std::string text = setUpCommands({"a", "C", false, {rule}});
    const std::string begin = "\tchain C {\n";
    const std::size_t first = text.find(begin) + begin.size();
    return text.substr(first, text.find("\t}\n", first) - first);
}

}  // namespace

TEST(FirewallTextTest, theWholeIsOneReplacementOfATableWithTheMark)
{
    FirewallRule rule;
    rule.verdict = RuleVerdict::drop;
    EXPECT_EQ(setUpCommands({"vpn.vpnoal", "NORVA", false, {rule}}),
              "add table inet vpn.vpnoal\n"
              "delete table inet vpn.vpnoal\n"
              "table inet vpn.vpnoal {\n"
              "\tcomment \"vknetconfig\"\n"
              "\tchain NORVA {\n"
              "\t\tdrop\n"
              "\t}\n"
              "\tchain _input {\n\t\ttype filter hook input priority filter; policy accept;\n\t\tjump NORVA\n\t}\n"
              "\tchain _output {\n\t\ttype filter hook output priority filter; policy accept;\n\t\tjump NORVA\n\t}\n"
              "\tchain _forward {\n\t\ttype filter hook forward priority filter; policy accept;\n\t\tjump NORVA\n\t}\n"
              "}\n");
}

TEST(FirewallTextTest, removalIsOneCommand)
{
    EXPECT_EQ(removalCommand("vpn.vpnoal"), "delete table inet vpn.vpnoal\n");
}

TEST(FirewallTextTest, everyConditionIsInTheLine)
{
    FirewallRule rule;
    rule.source = network("10.0.0.0", 8);
    rule.destination = network("192.168.1.9", 32);
    rule.protocol = RuleProtocol::tcp;
    rule.direction = RuleDirection::in;
    rule.interfaceName = "norvatun0";
    rule.sourcePort = 1;
    rule.destinationPort = 65535;
    EXPECT_EQ(
        linesOf(rule),
        "\t\tiifname \"norvatun0\" ip saddr 10.0.0.0/8 ip daddr 192.168.1.9 tcp sport 1 tcp dport 65535 accept\n");
}

TEST(FirewallTextTest, outgoingIsTheOutputInterface)
{
    FirewallRule rule;
    rule.direction = RuleDirection::out;
    rule.interfaceName = "eth0.7";
    EXPECT_EQ(linesOf(rule), "\t\toifname \"eth0.7\" accept\n");
}

TEST(FirewallTextTest, aProtocolWithoutPortsIsANumber)
{
    FirewallRule rule;
    rule.protocol = RuleProtocol::icmp;
    EXPECT_EQ(linesOf(rule), "\t\tmeta l4proto 1 accept\n");
    rule.protocol = RuleProtocol::tcp;
    EXPECT_EQ(linesOf(rule), "\t\tmeta l4proto 6 accept\n");
    rule.protocol = RuleProtocol::udp;
    EXPECT_EQ(linesOf(rule), "\t\tmeta l4proto 17 accept\n");
}

TEST(FirewallTextTest, aPortWithoutAProtocolMeansTcpAndUdp)
{
    FirewallRule rule;
    rule.source = network("10.0.0.1", 32);
    rule.destinationPort = 53;
    rule.verdict = RuleVerdict::drop;
    EXPECT_EQ(linesOf(rule), "\t\tip saddr 10.0.0.1 tcp dport 53 drop\n\t\tip saddr 10.0.0.1 udp dport 53 drop\n");
}

TEST(FirewallTextTest, theWholeAddressSpaceIsAnyIpv4Packet)
{
    FirewallRule rule;
    rule.destination = network("0.0.0.0", 0);
    EXPECT_EQ(linesOf(rule), "\t\tmeta nfproto ipv4 accept\n");
}

TEST(FirewallTextTest, rulesKeepTheirOrder)
{
    FirewallRule accept;
    FirewallRule drop;
    drop.verdict = RuleVerdict::drop;
    EXPECT_THAT(setUpCommands({"a", "C", false, {accept, drop, accept}}),
                HasSubstr("\tchain C {\n\t\taccept\n\t\tdrop\n\t\taccept\n\t}\n"));
}

TEST(FirewallTextTest, theMarkIsFoundInUserDataOfTheKernel)
{
    using namespace std::string_literals;
    // 00 0c "vknetconfig" 00: type, length, text with its end
    const std::string mark = "\x00\x0cvknetconfig\x00"s;
    EXPECT_TRUE(bearsMark(mark));
    EXPECT_TRUE(bearsMark("\x05\x02xy"s + mark)) << "after a field of another type";
}

TEST(FirewallTextTest, otherUserDataBearsNoMark)
{
    using namespace std::string_literals;
    for (const std::string& bytes :
         {""s, "\x00"s, "\x00\x0cvknetconfi"s, "\x00\x0bvknetconfig"s, "\x00\x0dvknetconfig2\x00"s,
          "\x01\x0cvknetconfig\x00"s, "\x00\x05mine\x00"s, "\x05\xffxy\x00\x0cvknetconfig\x00"s}) {
        EXPECT_FALSE(bearsMark(bytes));
    }
}
