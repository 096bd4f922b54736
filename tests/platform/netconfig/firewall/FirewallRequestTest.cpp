// SPDX-License-Identifier: Apache-2.0
#include "firewall/FirewallRequest.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include "ErrorOf.h"
#include "RequestError.h"

using namespace vknetconfig;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

std::string errorOf(const char* json)
{
    return testsupport::errorOf<RequestError>([&] { parseFirewallRequest(json); });
}

std::string withRules(const std::string& rules)
{
    return R"({"label":"vpn.vpnoal","chainNew":"NORVA","rules":[)" + rules + "]}";
}

std::string withRule(const std::string& keys)
{
    return withRules(R"({"operation":"append",)" + keys + R"(,"jumpTo":"DROP"})");
}

std::string errorOfRule(const std::string& keys)
{
    return errorOf(withRule(keys).c_str());
}

std::string errorOfLabel(const std::string& label)
{
    return errorOf((R"({"label":")" + label + R"(","chainDelete":"NORVA"})").c_str());
}

FirewallRule ruleOf(const std::string& keys)
{
    return parseFirewallRequest(withRule(keys).c_str()).rules.at(0);
}

wfoal::Ipv4Network network(const char* address, std::uint8_t prefix)
{
    wfoal::Ipv4Network made;
    EXPECT_EQ(inet_pton(AF_INET, address, &made.address.bits), 1);
    made.prefix = prefix;
    return made;
}

}  // namespace

TEST(FirewallRequestTest, EveryKeyOfARuleIsRead)
{
    const FirewallRequest request = parseFirewallRequest(
        R"({"label":"vpn.vpnoal","chainNew":"NORVA","rules":[{"operation":"append","source":"10.0.0.0\/255.0.0.0",)"
        R"("destination":"192.168.1.9","protocol":"TCP","interfaceName":"norvatun0","interfaceDirection":"out",)"
        R"("sourcePort":1,"destinationPort":65535,"jumpTo":"ACCEPT"}]})");
    FirewallRule rule;
    rule.source = network("10.0.0.0", 8);
    rule.destination = network("192.168.1.9", 32);
    rule.protocol = RuleProtocol::Tcp;
    rule.direction = RuleDirection::Out;
    rule.interfaceName = "norvatun0";
    rule.sourcePort = 1;
    rule.destinationPort = 65535;
    EXPECT_EQ(request, (FirewallRequest{"vpn.vpnoal", "NORVA", false, {rule}}));
}

TEST(FirewallRequestTest, ARuleMayHaveOnlyAnAction)
{
    FirewallRule rule;
    rule.verdict = RuleVerdict::Drop;
    const std::string json = withRules(R"({"operation":"append","jumpTo":"DROP"})");
    EXPECT_EQ(parseFirewallRequest(json.c_str()).rules, std::vector<FirewallRule>{rule});
}

TEST(FirewallRequestTest, NoRulesAreFine)
{
    EXPECT_EQ(parseFirewallRequest(withRules("").c_str()), (FirewallRequest{"vpn.vpnoal", "NORVA", false, {}}));
}

TEST(FirewallRequestTest, RemovalHasLabelAndChain)
{
    EXPECT_EQ(parseFirewallRequest(R"({"label":"vpn.vpnoal","chainDelete":"NORVA"})"),
              (FirewallRequest{"vpn.vpnoal", "NORVA", true, {}}));
}

TEST(FirewallRequestTest, AddressesMayHaveADottedMaskAPrefixOrNone)
{
    EXPECT_EQ(ruleOf(R"("source":"10.1.0.0/255.255.0.0")").source, network("10.1.0.0", 16));
    EXPECT_EQ(ruleOf(R"("source":"10.1.0.0/16")").source, network("10.1.0.0", 16));
    EXPECT_EQ(ruleOf(R"("source":"10.1.0.0")").source, network("10.1.0.0", 32));
    EXPECT_EQ(ruleOf(R"("source":"10.1.0.7/255.255.255.255")").source, network("10.1.0.7", 32));
    EXPECT_EQ(ruleOf(R"("destination":"0.0.0.0/0.0.0.0")").destination, network("0.0.0.0", 0));
    EXPECT_EQ(ruleOf(R"("destination":"0.0.0.0/0")").destination, network("0.0.0.0", 0));
}

TEST(FirewallRequestTest, BitsOutsideTheMaskAreDropped)
{
    EXPECT_EQ(ruleOf(R"("source":"10.1.2.3/255.0.0.0")").source, network("10.0.0.0", 8));
    EXPECT_EQ(ruleOf(R"("source":"10.8.0.7/24")").source, network("10.8.0.0", 24));
    EXPECT_EQ(ruleOf(R"("source":"10.1.2.3/0")").source, network("0.0.0.0", 0));
}

TEST(FirewallRequestTest, AddressesThatAreNoneAreRefused)
{
    for (const char* text : {"", "10.0.0", "10.0.0.0.0", "10.0.0.256", "10.0.0.01", "10.0.0.1 ", "::1", "host", "/8",
                             "0x0100000a", "10.0.0.1\\nadd rule", "10.0.0.1-10.0.0.9"}) {
        const std::string error = errorOfRule(std::string(R"("destination":")") + text + "\"");
        EXPECT_THAT(error, StartsWith("rules[0].destination: ")) << text;
    }
}

TEST(FirewallRequestTest, TheReasonQuotesTheAddress)
{
    EXPECT_EQ(errorOfRule(R"("destination":"host/8")"), R"(rules[0].destination: "host" is no IPv4 address)");
}

TEST(FirewallRequestTest, MasksThatAreNoneAreRefused)
{
    for (const char* text : {"", "33", "-1", "+8", "08", "8 ", "255", "255.0.0", "10.0.0.0/8"}) {
        const std::string error = errorOfRule(std::string(R"("source":"10.0.0.0/)") + text + "\"");
        EXPECT_THAT(error, HasSubstr("is neither a prefix length from 0 to 32 nor a netmask")) << text;
        EXPECT_THAT(error, StartsWith("rules[0].source: ")) << text;
    }
}

TEST(FirewallRequestTest, ANetmaskWithHolesIsRefused)
{
    EXPECT_EQ(errorOfRule(R"("source":"10.0.0.0/255.0.255.0")"), R"(rules[0].source: netmask "255.0.255.0" has holes)");
    EXPECT_THAT(errorOfRule(R"("source":"10.0.0.0/0.0.0.255")"), HasSubstr("has holes"));
}

TEST(FirewallRequestTest, APortWithIcmpIsRefused)
{
    EXPECT_EQ(errorOfRule(R"("protocol":"ICMP","sourcePort":5)"), "rules[0].sourcePort: ICMP has no ports");
    EXPECT_EQ(errorOfRule(R"("destinationPort":5,"protocol":"ICMP")"), "rules[0].destinationPort: ICMP has no ports");
}

TEST(FirewallRequestTest, PortsAreFrom1To65535)
{
    for (const char* port : {"0", "-1", "65536", "4294967297", "1e3", "5.0", "\"80\"", "null", "true"}) {
        EXPECT_EQ(errorOfRule(std::string(R"("sourcePort":)") + port),
                  "rules[0].sourcePort: must be a whole number from 1 to 65535")
            << port;
    }
}

TEST(FirewallRequestTest, APortWithoutAProtocolIsFine)
{
    const FirewallRule rule = ruleOf(R"("destinationPort":53)");
    EXPECT_EQ(rule.protocol, RuleProtocol::Any);
    EXPECT_EQ(rule.destinationPort, 53);
}

TEST(FirewallRequestTest, WordsAreExact)
{
    EXPECT_EQ(errorOfRule(R"("protocol":"tcp")"), R"(rules[0].protocol: "tcp" is not one of "ICMP", "TCP", "UDP")");
    EXPECT_THAT(errorOfRule(R"("protocol":6)"), StartsWith("rules[0].protocol: "));
    EXPECT_THAT(errorOfRule(R"("interfaceName":"eth0","interfaceDirection":"both")"),
                StartsWith("rules[0].interfaceDirection: "));
    EXPECT_THAT(errorOf(withRules(R"({"operation":"insert","jumpTo":"DROP"})").c_str()),
                StartsWith("rules[0].operation: "));
    EXPECT_THAT(errorOf(withRules(R"({"operation":"append","jumpTo":"REJECT"})").c_str()),
                StartsWith("rules[0].jumpTo: "));
}

TEST(FirewallRequestTest, OperationAndActionAreRequired)
{
    EXPECT_EQ(errorOf(withRules(R"({"jumpTo":"DROP"})").c_str()), "rules[0].operation: missing");
    EXPECT_EQ(errorOf(withRules(R"({"operation":"append"})").c_str()), "rules[0].jumpTo: missing");
}

TEST(FirewallRequestTest, InterfaceNameAndDirectionGoTogether)
{
    EXPECT_THAT(errorOfRule(R"("interfaceName":"eth0")"), StartsWith("rules[0].interfaceDirection: missing"));
    EXPECT_THAT(errorOfRule(R"("interfaceDirection":"in")"), StartsWith("rules[0].interfaceName: missing"));
}

TEST(FirewallRequestTest, AnInterfaceNameOf15CharactersIsTheLongest)
{
    EXPECT_EQ(ruleOf(R"("interfaceName":"abcdefghijklmno","interfaceDirection":"in")").interfaceName,
              "abcdefghijklmno");
    EXPECT_EQ(errorOfRule(R"("interfaceName":"abcdefghijklmnop","interfaceDirection":"in")"),
              "rules[0].interfaceName: \"abcdefghijklmnop\" is longer than the 15 characters of an interface name");
}

TEST(FirewallRequestTest, OddCharactersInInterfaceNamesAreRefused)
{
    for (const char* name :
         {"", "eth*", "e\\\"h0", "eth 0", "eth/0", "eth0;", "eth\\n", "eth\\u0000", "\xc3\xa4", "..", "."}) {
        EXPECT_THAT(errorOfRule(std::string(R"("interfaceDirection":"in","interfaceName":")") + name + "\""),
                    StartsWith("rules[0].interfaceName: "))
            << name;
    }
}

TEST(FirewallRequestTest, TheErrorNamesTheRule)
{
    const std::string good = R"({"operation":"append","jumpTo":"DROP"})";
    const std::string bad = R"({"operation":"append","jumpTo":"DROP","sourcePort":-1})";
    EXPECT_THAT(errorOf(withRules(good + "," + good + "," + good + "," + bad).c_str()),
                StartsWith("rules[3].sourcePort: "));
}

TEST(FirewallRequestTest, LabelsAreNamesOfNft)
{
    for (const char* label : {"vpn.vpnoal", "A", "a_b-c.d/e9", "abcdefghijklmnopqrstuvwxyz01234"}) {
        EXPECT_EQ(errorOfLabel(label), "no error") << label;
    }
    for (const char* label : {"", "9a", ".a", "_a", "a b", "a;b", "a{", "a\\n", "a*", "\xc3\xa4", "a\\u0000b",
                              "abcdefghijklmnopqrstuvwxyz012345"}) {
        EXPECT_THAT(errorOfLabel(label), StartsWith("label: ")) << label;
    }
}

TEST(FirewallRequestTest, ChainsHaveNamesOfNftToo)
{
    EXPECT_THAT(errorOf(R"({"label":"a","chainDelete":"NOR VA"})"), StartsWith("chainDelete: "));
    EXPECT_THAT(errorOf(R"({"label":"a","chainNew":"_input","rules":[]})"), StartsWith("chainNew: "));
}

TEST(FirewallRequestTest, ExactlyOneOfSetUpAndRemoval)
{
    EXPECT_THAT(errorOf(R"({"label":"a","chainNew":"B","chainDelete":"B","rules":[]})"), StartsWith("chainDelete: "));
    EXPECT_THAT(errorOf(R"({"label":"a"})"), StartsWith("chainNew: missing"));
    EXPECT_EQ(errorOf(R"({"label":"a","chainNew":"B"})"), "rules: missing");
    EXPECT_THAT(errorOf(R"({"label":"a","chainDelete":"B","rules":[]})"), StartsWith("rules: "));
    EXPECT_EQ(errorOf(R"({"chainDelete":"B"})"), "label: missing");
}

TEST(FirewallRequestTest, UnknownAndRepeatedKeysAreRefused)
{
    EXPECT_EQ(errorOf(R"({"label":"a","chainDelete":"B","colour":1})"), "colour: unknown key");
    EXPECT_EQ(errorOfRule(R"("state":"new")"), "rules[0].state: unknown key");
    EXPECT_EQ(errorOfRule(R"("sourcePort":1,"sourcePort":2)"), "rules[0].sourcePort: given twice");
}

TEST(FirewallRequestTest, WrongTypesAreRefused)
{
    EXPECT_THAT(errorOf(R"({"label":1,"chainDelete":"B"})"), StartsWith("label: "));
    EXPECT_THAT(errorOf(R"({"label":"a","chainNew":"B","rules":{}})"), StartsWith("rules: "));
    EXPECT_THAT(errorOf(withRules("[]").c_str()), StartsWith("rules[0]: "));
    EXPECT_THAT(errorOfRule(R"("source":null)"), StartsWith("rules[0].source: "));
    EXPECT_NE(errorOf("[]"), "no error");
    EXPECT_NE(errorOf("null"), "no error");
}

TEST(FirewallRequestTest, WhatIsNoJsonIsRefused)
{
    EXPECT_NE(errorOf(nullptr), "no error");
    EXPECT_NE(errorOf(""), "no error");
    EXPECT_NE(errorOf("{"), "no error");
    EXPECT_NE(errorOf(R"({"label":"a","chainDelete":"B"} x)"), "no error");
}

TEST(FirewallRequestTest, AMegabyteOfTextIsRefusedInOneShortLine)
{
    const std::string megabyte(1 << 20, 'a');
    for (const std::string& json :
         {megabyte, "\"" + megabyte + "\"", R"({"label":")" + megabyte + R"("})", withRule("\"" + megabyte + "\":1"),
          withRule(R"("source":")" + megabyte + "\""), std::string(1 << 20, '[')}) {
        const std::string error = errorOf(json.c_str());
        EXPECT_NE(error, "no error");
        EXPECT_LT(error.size(), 200U);
        EXPECT_EQ(error.find('\n'), std::string::npos);
    }
}
