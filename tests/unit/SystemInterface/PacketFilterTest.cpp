// SPDX-License-Identifier: Apache-2.0
//
// Packet-filter rules, as they arrive in the filter request.
#include <string>

#include "SystemInterfaceTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// The arguments of one rule; by default only an action.
struct Rule {
    const char* source = nullptr;
    const char* sourceMask = nullptr;
    unsigned short sourcePort = 0;
    const char* destination = nullptr;
    const char* destinationMask = nullptr;
    unsigned short destinationPort = 0;
    int protocol = 0;
    int direction = 2;
    const char* interface = nullptr;
    int action = 1;
};

class PacketFilterTest : public SystemInterfaceTest {
protected:
    PluginResult add(const Rule& rule)
    {
        return mSystem->SetPacketFilterRule(
            rule.source, rule.sourceMask, rule.sourcePort, rule.destination, rule.destinationMask, rule.destinationPort,
            static_cast<KEST_FilterProtocol>(rule.protocol), static_cast<KEST_FilterApplyDirection>(rule.direction),
            rule.interface, static_cast<KEST_FilterAction>(rule.action));
    }

    static std::string filter(const std::string& rules)
    {
        return R"({ "label": "vpn.vpnoal", "chainNew": "NORVA", "rules": [ )" + rules + " ] }";
    }

    /// The one rule that these arguments become.
    std::string ruleText(const Rule& rule)
    {
        EXPECT_EQ(PLUGIN_SUCCESS, add(rule));
        const std::string text = appliedFilter();
        const std::string before = R"({ "label": "vpn.vpnoal", "chainNew": "NORVA", "rules": [ )";
        EXPECT_EQ(before, text.substr(0, before.size()));
        return text.substr(before.size(), text.size() - before.size() - std::string(" ] }").size());
    }
};

TEST_F(PacketFilterTest, OnlyAnActionOfOneDrops)
{
    EXPECT_EQ(R"({ "operation": "append", "jumpTo": "DROP" })", ruleText({}));
}

TEST_F(PacketFilterTest, ActionZeroAcceptsAndEveryOtherDrops)
{
    Rule rule;
    rule.action = 0;
    EXPECT_EQ(R"({ "operation": "append", "jumpTo": "ACCEPT" })", ruleText(rule));
    for (const int action : {1, 2, -1, 256, 2147483647}) {
        rule.action = action;
        EXPECT_EQ(R"({ "operation": "append", "jumpTo": "DROP" })", ruleText(rule)) << action;
    }
}

TEST_F(PacketFilterTest, SourceAddressWithAndWithoutMask)
{
    Rule rule;
    rule.source = "10.0.0.0";
    EXPECT_EQ(R"({ "operation": "append", "source": "10.0.0.0", "jumpTo": "DROP" })", ruleText(rule));
    // json-c writes "/" as "\/"; the text that the platform parses is 10.0.0.0/255.0.0.0.
    rule.sourceMask = "255.0.0.0";
    EXPECT_EQ(R"({ "operation": "append", "source": "10.0.0.0\/255.0.0.0", "jumpTo": "DROP" })", ruleText(rule));
}

TEST_F(PacketFilterTest, DestinationAddressWithAndWithoutMask)
{
    Rule rule;
    rule.destination = "10.0.0.0";
    EXPECT_EQ(R"({ "operation": "append", "destination": "10.0.0.0", "jumpTo": "DROP" })", ruleText(rule));
    rule.destinationMask = "255.0.0.0";
    EXPECT_EQ(R"({ "operation": "append", "destination": "10.0.0.0\/255.0.0.0", "jumpTo": "DROP" })", ruleText(rule));
}

TEST_F(PacketFilterTest, MaskWithoutAddressIsIgnored)
{
    Rule rule;
    rule.sourceMask = "255.0.0.0";
    rule.destinationMask = "255.0.0.0";
    EXPECT_EQ(R"({ "operation": "append", "jumpTo": "DROP" })", ruleText(rule));
}

TEST_F(PacketFilterTest, AddressesAndMasksAreNotJudged)
{
    Rule rule;
    rule.source = "";
    rule.sourceMask = "";
    rule.destination = "nowhere";
    EXPECT_EQ(R"({ "operation": "append", "source": "\/", "destination": "nowhere", "jumpTo": "DROP" })",
              ruleText(rule));
}

TEST_F(PacketFilterTest, ProtocolsOneToThreeAreNamedAndOthersLeftOut)
{
    const std::pair<int, const char*> named[] = {{1, "ICMP"}, {2, "TCP"}, {3, "UDP"}};
    Rule rule;
    for (const auto& [protocol, name] : named) {
        rule.protocol = protocol;
        EXPECT_EQ(std::string(R"({ "operation": "append", "protocol": ")") + name + R"(", "jumpTo": "DROP" })",
                  ruleText(rule));
    }
    for (const int protocol : {0, 4, 5, 6, 17, -1, 2147483647}) {
        rule.protocol = protocol;
        EXPECT_EQ(R"({ "operation": "append", "jumpTo": "DROP" })", ruleText(rule)) << protocol;
    }
}

TEST_F(PacketFilterTest, DirectionTwoLeavesTheInterfaceOut)
{
    Rule rule;
    rule.direction = 2;
    rule.interface = "norvatun0";
    EXPECT_EQ(R"({ "operation": "append", "jumpTo": "DROP" })", ruleText(rule));
}

TEST_F(PacketFilterTest, DirectionOneIsInAndEveryOtherOut)
{
    Rule rule;
    rule.interface = "norvatun0";
    rule.direction = 1;
    EXPECT_EQ(
        R"({ "operation": "append", "interfaceName": "norvatun0", "interfaceDirection": "in", "jumpTo": "DROP" })",
        ruleText(rule));
    for (const int direction : {0, 3, 4, -1, 2147483647}) {
        rule.direction = direction;
        EXPECT_EQ(
            R"({ "operation": "append", "interfaceName": "norvatun0", "interfaceDirection": "out", "jumpTo": "DROP" })",
            ruleText(rule))
            << direction;
    }
}

TEST_F(PacketFilterTest, DirectionWithoutAnInterfaceNameIsLeftOut)
{
    Rule rule;
    rule.direction = 1;
    EXPECT_EQ(R"({ "operation": "append", "jumpTo": "DROP" })", ruleText(rule));
}

TEST_F(PacketFilterTest, PortsAreWrittenUnlessZero)
{
    Rule rule;
    rule.sourcePort = 65535;
    EXPECT_EQ(R"({ "operation": "append", "sourcePort": 65535, "jumpTo": "DROP" })", ruleText(rule));
    rule.sourcePort = 0;
    rule.destinationPort = 32768;
    EXPECT_EQ(R"({ "operation": "append", "destinationPort": 32768, "jumpTo": "DROP" })", ruleText(rule));
}

TEST_F(PacketFilterTest, FullRuleHasItsKeysInOrderAndIsLogged)
{
    const Rule rule{"10.0.0.0", "255.0.0.0", 1024, "10.1.2.3", "255.255.255.255", 53, 3, 0, "eth0", 0};
    const std::string text =
        R"({ "operation": "append", "source": "10.0.0.0\/255.0.0.0", "destination": "10.1.2.3\/255.255.255.255", )"
        R"("protocol": "UDP", "interfaceName": "eth0", "interfaceDirection": "out", "sourcePort": 1024, )"
        R"("destinationPort": 53, "jumpTo": "ACCEPT" })";
    EXPECT_EQ(PLUGIN_SUCCESS, add(rule));
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(fakes::LogLine{7, "SystemInterface::SetPacketFilterRule Adding Firewall Rule " + text}));
    EXPECT_THAT(fakes::calls(), IsEmpty());
    EXPECT_EQ(filter(text), appliedFilter());
}

TEST_F(PacketFilterTest, ApplyWithoutRulesStillDeletesAndCreates)
{
    mSystem->ApplyConfiguration();
    EXPECT_THAT(textsOf("VkFirewallFullCtrl"), ElementsAre(deleteRequest, emptyFilterRequest));
}

TEST_F(PacketFilterTest, RulesOfAFailedApplyAreSentAgainWithNewerOnes)
{
    Rule rule;
    add(rule);
    fakes::netConfigResults().add = 1;
    EXPECT_EQ(filter(R"({ "operation": "append", "jumpTo": "DROP" })"), appliedFilter());
    rule.action = 0;
    add(rule);
    fakes::netConfigResults().add = 0;
    EXPECT_EQ(filter(R"({ "operation": "append", "jumpTo": "DROP" }, { "operation": "append", "jumpTo": "ACCEPT" })"),
              appliedFilter());
    EXPECT_EQ(emptyFilterRequest, appliedFilter());
}

}  // namespace
