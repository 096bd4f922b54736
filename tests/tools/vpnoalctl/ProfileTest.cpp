// SPDX-License-Identifier: Apache-2.0
//
// Profiles: what is read, and what is refused with which words.
#include "profile/Profile.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "CommandError.h"

namespace vpnoalctl {
namespace {

constexpr char tunnel[] = R"("tunnel":{"address":"10.8.0.2/24","peer":"10.8.0.1"})";

// A profile with the tunnel above and more keys.
std::string with(const std::string& keys)
{
    return std::string("{") + tunnel + "," + keys + "}";
}

std::string withTunnel(const std::string& keys)
{
    return R"({"tunnel":{)" + keys + "}}";
}

std::string withRoute(const std::string& keys)
{
    return with(R"("routes":[{"destination":"10.20.0.0/16"},{)" + keys + "}]");
}

std::string withRule(const std::string& keys)
{
    return with(R"("filter":[{"action":"drop"},{)" + keys + "}]");
}

Profile parsed(const std::string& text)
{
    return parseProfile(text, "p.json");
}

// The error without the name of the file and the advice, which are always the same.
std::string errorOf(const std::string& text)
{
    try {
        parsed(text);
    } catch (const CommandError& error) {
        EXPECT_EQ(ExitUsage, error.exitCode());
        const std::string whole = error.what();
        EXPECT_EQ("p.json: " + error.reason() + "; correct the profile; nothing was changed", whole);
        return error.reason();
    }
    return "no error";
}

struct Refusal {
    std::string text;
    std::string error;
};

void expectRefusals(const std::vector<Refusal>& refusals)
{
    for (const Refusal& refusal : refusals)
        EXPECT_EQ(refusal.error, errorOf(refusal.text)) << refusal.text;
}

TEST(ProfileTest, SmallestProfileHasDefaults)
{
    const Profile profile = parsed(std::string("{") + tunnel + "}");
    EXPECT_EQ("10.8.0.2/24", withPrefix(profile.tunnel->address));
    EXPECT_EQ("10.8.0.1", dotted(profile.tunnel->peer.value()));
    EXPECT_EQ(1400u, profile.tunnel->mtu);
    EXPECT_TRUE(profile.dnsServers.empty() && profile.dnsDomains.empty());
    EXPECT_TRUE(profile.routes.empty() && profile.filter.empty());
}

TEST(ProfileTest, NetmaskAndPrefixLengthMeanTheSame)
{
    const Profile profile = parsed(withTunnel(R"("address":"10.8.0.2/255.255.255.0","peer":"10.8.0.1")"));
    EXPECT_EQ(24, profile.tunnel->address.prefix);
    EXPECT_EQ("255.255.255.0", dotted(profile.tunnel->address.mask()));
}

TEST(ProfileTest, AddressAloneIsAHost)
{
    const Profile profile = parsed(withTunnel(R"("address":"10.8.0.2","peer":"192.0.2.1")"));
    EXPECT_EQ(32, profile.tunnel->address.prefix);
    EXPECT_EQ("255.255.255.255", dotted(profile.tunnel->address.mask()));
}

TEST(ProfileTest, RouteGoesToThePeerWhenNothingElseIsSaid)
{
    const Profile profile = parsed(withRoute(R"("destination":"default","gateway":"10.8.0.9","metric":4294967295)"));
    ASSERT_EQ(2u, profile.routes.size());
    EXPECT_EQ("10.8.0.1", dotted(profile.routes[0].gateway));
    EXPECT_EQ(0u, profile.routes[0].metric);
    EXPECT_EQ("0.0.0.0/0", withPrefix(profile.routes[1].destination));
    EXPECT_EQ("0.0.0.0", dotted(profile.routes[1].destination.mask()));
    EXPECT_EQ("10.8.0.9", dotted(profile.routes[1].gateway));
    EXPECT_EQ(4294967295u, profile.routes[1].metric);
}

TEST(ProfileTest, RouteGoesToTheDeviceWhenThereIsNoPeer)
{
    const Profile profile = parsed(
        R"({"tunnel":{"address":"10.8.0.2/24"},"routes":[{"destination":"10.20.0.0/16"},
            {"destination":"default","gateway":"10.8.0.9"}]})");
    EXPECT_FALSE(profile.tunnel->peer.has_value());
    EXPECT_EQ("0.0.0.0", dotted(profile.routes[0].gateway));
    EXPECT_EQ("10.8.0.9", dotted(profile.routes[1].gateway));
    EXPECT_EQ("routes[0].gateway: 10.9.0.9 cannot be reached through the tunnel, whose network is 10.8.0.0/24",
              errorOf(R"({"tunnel":{"address":"10.8.0.2/24"},
                          "routes":[{"destination":"10.20.0.0/16","gateway":"10.9.0.9"}]})"));
}

TEST(ProfileTest, WithoutATunnelTheDeviceSaysWhatIsMissing)
{
    const Profile profile =
        parsed(R"({"routes":[{"destination":"10.20.0.0/16"},{"destination":"10.30.0.0/16","gateway":"10.8.0.9"}]})");
    EXPECT_FALSE(profile.tunnel.has_value());
    TunnelSettings device{{*wfoal::parseDottedAddress("10.8.0.2"), 24}, wfoal::parseDottedAddress("10.8.0.1"), 1380};
    Profile completed = completedFor(device, profile);
    EXPECT_EQ("10.8.0.1", dotted(completed.routes[0].gateway));
    EXPECT_EQ("10.8.0.9", dotted(completed.routes[1].gateway));
    EXPECT_EQ(1380u, completed.tunnel->mtu);
    device.peer.reset();
    completed = completedFor(device, profile);
    EXPECT_EQ("0.0.0.0", dotted(completed.routes[0].gateway));
    device.address.address = *wfoal::parseDottedAddress("10.9.0.2");
    try {
        completedFor(device, profile);
        ADD_FAILURE() << "the gateway is in reach";
    } catch (const CommandError& error) {
        EXPECT_EQ(ExitUsage, error.exitCode());
        EXPECT_STREQ(
            "the profile: routes[1].gateway: 10.8.0.9 cannot be reached through the tunnel, whose network is "
            "10.9.0.0/24; correct the profile; nothing was changed",
            error.what());
    }
}

TEST(ProfileTest, ServerAndBypassStayOutside)
{
    const auto textsFor = [](const std::string& text) { return textsOf(parsed(text).outside); };
    EXPECT_THAT(textsFor(R"({"server":"192.0.2.7","bypass":["10.1.0.0/16","2001:db8::/32","192.0.2.9"]})"),
                testing::UnorderedElementsAre("192.0.2.7/32", "10.1.0.0/16", "192.0.2.9/32", "2001:db8::/32"));
    EXPECT_THAT(textsFor(R"({"server":"2001:DB8::7"})"), testing::ElementsAre("2001:db8::7/128"));
    EXPECT_TRUE(isEmpty(parsed("{}").outside));
    const BypassNetworks both = merged(parsed(R"({"server":"192.0.2.7"})").outside,
                                       parsed(R"({"bypass":["192.0.2.7","2001:db8::/32"]})").outside);
    EXPECT_THAT(textsOf(both), testing::ElementsAre("192.0.2.7/32", "2001:db8::/32"));
}

TEST(ProfileTest, WhatCannotStayOutside)
{
    expectRefusals({
        {R"({"server":"vpn.example"})", "server: \"vpn.example\" is no IPv4 address"},
        {R"({"server":"192.0.2.0/24"})", "server: \"192.0.2.0/24\" is no IPv4 address"},
        {R"({"server":"224.0.0.1"})", "server: 224.0.0.1 is no address of a host"},
        {R"({"server":"2001:db8::7/64"})", "server: \"2001:db8::7/64\" is no IPv6 address"},
        {R"({"server":"fe80::1%eth0"})", "server: \"fe80::1%eth0\" is no IPv6 address"},
        {R"({"server":["192.0.2.7"]})", "server: must be a text"},
        {R"({"bypass":"192.0.2.7"})", "bypass: must be an array"},
        {R"({"bypass":["10.0.0.0/8",7]})", "bypass[1]: must be a text"},
        {R"({"bypass":["0.0.0.0/0"]})", "bypass[0]: would keep all traffic outside of the tunnel"},
        {R"({"bypass":["::/0"]})", "bypass[0]: would keep all traffic outside of the tunnel"},
        {R"({"bypass":["10.1.2.0/16"]})",
         "bypass[0]: 10.1.2.0/16 has bits set after its prefix; the network is 10.1.0.0/16"},
        {R"({"bypass":["2001:db8::1/32"]})",
         "bypass[0]: 2001:db8::1/32 has bits set after its prefix; the network is 2001:db8::/32"},
        {R"({"bypass":["2001:db8::/129"]})", "bypass[0]: \"129\" is no prefix length from 0 to 128"},
        {R"({"bypass":["10.20.0.0/16"],"routes":[{"destination":"10.20.0.0/16"}]})",
         "routes[0]: 10.20.0.0/16 stays outside of the tunnel, by \"server\" or \"bypass\""},
    });
}

TEST(ProfileTest, DeviceThatIsMadeNeedsATunnel)
{
    EXPECT_EQ("10.8.0.2/24", withPrefix(tunnelToMake(parsed(std::string("{") + tunnel + "}"), "p.json").address));
    try {
        tunnelToMake(parsed("{}"), "p.json");
        ADD_FAILURE() << "there is none";
    } catch (const CommandError& error) {
        EXPECT_EQ(ExitUsage, error.exitCode());
        EXPECT_STREQ("p.json: tunnel: missing; the device that is made needs an address; nothing was changed",
                     error.what());
    }
}

TEST(ProfileTest, RuleWithEverything)
{
    const Profile profile = parsed(withRule(R"("action":"accept","direction":"in","interface":"wlan0.5",
        "protocol":"tcp","source":"10.0.0.0/255.0.0.0","sourcePort":1,"destination":"10.8.0.2","destinationPort":65535)"));
    ASSERT_EQ(2u, profile.filter.size());
    const FilterRule& rule = profile.filter[1];
    EXPECT_EQ(FILTER_ACTION_ACCEPT, rule.action);
    EXPECT_EQ(FILTER_DIRECTION_IN, rule.direction);
    EXPECT_EQ("wlan0.5", rule.interface);
    EXPECT_EQ(FILTER_PROTOCOL_TCP, rule.protocol);
    EXPECT_EQ("10.0.0.0/8", withPrefix(*rule.source.network));
    EXPECT_EQ(1, rule.source.port);
    EXPECT_EQ("10.8.0.2/32", withPrefix(*rule.destination.network));
    EXPECT_EQ(65535, rule.destination.port);

    const FilterRule& bare = profile.filter[0];
    EXPECT_EQ(FILTER_ACTION_DROP, bare.action);
    EXPECT_EQ(FILTER_DIRECTION_BOTH, bare.direction);
    EXPECT_EQ(FILTER_PROTOCOL_ANY, bare.protocol);
    EXPECT_FALSE(bare.source.network || bare.destination.network);
}

TEST(ProfileTest, ServersAndDomainsKeepTheirOrder)
{
    const Profile profile =
        parsed(with(R"("dns":{"domains":["b.example","a_1.example"],"servers":["10.8.0.9","10.8.0.1"]})"));
    EXPECT_THAT(profile.dnsServers, testing::ElementsAre("10.8.0.9", "10.8.0.1"));
    EXPECT_THAT(profile.dnsDomains, testing::ElementsAre("b.example", "a_1.example"));
}

TEST(ProfileTest, WhatIsNotJsonIsRefusedWithLineAndColumn)
{
    expectRefusals({
        {"", "the profile is not JSON: The document is empty, at line 1, column 1"},
        {"{\n  \"tunnel\": {,\n}", "the profile is not JSON: Missing a name for object member, at line 2, column 14"},
        {std::string("{") + tunnel + "}}",
         "the profile is not JSON: The document root must not be followed by other values, at line 1, column 55"},
        {std::string("{}\0{}", 5), "the profile is not JSON: it holds a NUL byte, at line 1, column 3"},
        {std::string("{\n  \"\xc3\xa9\0\"", 8), "the profile is not JSON: it holds a NUL byte, at line 2, column 5"},
        {"{\"\xc3\xa9\" 1}",
         "the profile is not JSON: Missing a colon after a name of object member, at line 1, column 6"},
    });
}

TEST(ProfileTest, WrongTypesNameTheKey)
{
    expectRefusals({
        {"[]", "the profile: must be an object"},
        {R"({"tunnel":null})", "tunnel: must be an object"},
        {withTunnel(R"("address":10)"), "tunnel.address: must be a text"},
        {withTunnel(R"("peer":"10.8.0.1")"), "tunnel.address: missing"},
        {withTunnel(R"("address":"10.8.0.2/24","peer":"10.8.0.1","mtu":"1400")"),
         "tunnel.mtu: must be a whole number from 68 to 65535"},
        {with(R"("routes":{})"), "routes: must be an array"},
        {with(R"("routes":[5])"), "routes[0]: must be an object"},
        {withRoute(R"("metric":1)"), "routes[1].destination: missing"},
        {with(R"("dns":["10.8.0.1"])"), "dns: must be an object"},
        {with(R"("dns":{"servers":"10.8.0.1"})"), "dns.servers: must be an array"},
        {with(R"("dns":{"servers":[1]})"), "dns.servers[0]: must be a text"},
        {withRule(R"("protocol":6)"), "filter[1].protocol: must be a text"},
        {withRule(R"("direction":"in")"), "filter[1].action: missing"},
    });
}

TEST(ProfileTest, UnknownKeysComeWithAGuess)
{
    expectRefusals({
        {with(R"("route":[])"), "route: unknown key; perhaps \"routes\" is meant"},
        {with(R"("DNS":{})"), "DNS: unknown key; perhaps \"dns\" is meant"},
        {with(R"("comment":"")"), "comment: unknown key"},
        {withRoute(R"("destination":"10.0.0.0/8","gatway":"")"),
         "routes[1].gatway: unknown key; perhaps \"gateway\" is meant"},
        {withRule(R"("sourceport":1)"), "filter[1].sourceport: unknown key; perhaps \"sourcePort\" is meant"},
        {with(R"("dns":{},"dns":{})"), "dns: given twice"},
    });
}

TEST(ProfileTest, AddressesOutOfRange)
{
    expectRefusals({
        {withTunnel(R"("address":"10.8.0.256/24")"), "tunnel.address: \"10.8.0.256\" is no IPv4 address"},
        {withTunnel(R"("address":"10.8.0")"), "tunnel.address: \"10.8.0\" is no IPv4 address"},
        {withTunnel(R"("address":"10.8.0.02")"), "tunnel.address: \"10.8.0.02\" is no IPv4 address"},
        {withTunnel(R"("address":"fe80::1")"), "tunnel.address: \"fe80::1\" is no IPv4 address"},
        {withTunnel(R"("address":"")"), "tunnel.address: \"\" is no IPv4 address"},
        {withTunnel(R"("address":"10.8.0.2\u0000")"), "tunnel.address: must not hold a NUL character"},
        {withTunnel(R"("address":"224.0.0.1")"), "tunnel.address: 224.0.0.1 is no address of a host"},
        {withTunnel(R"("address":"10.8.0.2/24","peer":"0.0.0.0")"), "tunnel.peer: 0.0.0.0 is no address of a host"},
        {withTunnel(R"("address":"10.8.0.2/24","peer":"127.0.0.1")"), "tunnel.peer: 127.0.0.1 is no address of a host"},
        {withTunnel(R"("address":"10.8.0.2/24","peer":"10.8.0.2")"),
         "tunnel.peer: 10.8.0.2 is the tunnel's own address"},
        {withTunnel(R"("address":"10.8.0.2/0","peer":"10.8.0.1")"),
         "tunnel.address: a prefix of 0 would cover every address"},
        {withRoute(R"("destination":"10.0.0.300")"), "routes[1].destination: \"10.0.0.300\" is no IPv4 address"},
        {with(R"("dns":{"servers":["10.8.0.1","dns.example"]})"), "dns.servers[1]: \"dns.example\" is no IPv4 address"},
        {withRule(R"("action":"drop","source":"any")"), "filter[1].source: \"any\" is no IPv4 address"},
    });
}

TEST(ProfileTest, NetmasksWithHolesAndPrefixesOutOfRange)
{
    expectRefusals({
        {withTunnel(R"("address":"10.8.0.2/255.0.255.0")"), "tunnel.address: netmask \"255.0.255.0\" has holes"},
        {withTunnel(R"("address":"10.8.0.2/0.0.0.255")"), "tunnel.address: netmask \"0.0.0.255\" has holes"},
        {withRoute(R"("destination":"10.0.0.0/33")"),
         "routes[1].destination: \"33\" is neither a prefix length from 0 to 32 nor a netmask"},
        {withRoute(R"("destination":"10.0.0.0/")"),
         "routes[1].destination: \"\" is neither a prefix length from 0 to 32 nor a netmask"},
        {withRoute(R"("destination":"10.0.0.0/-1")"),
         "routes[1].destination: \"-1\" is neither a prefix length from 0 to 32 nor a netmask"},
        {withRoute(R"("destination":"10.0.0.0/8/8")"),
         "routes[1].destination: \"8/8\" is neither a prefix length from 0 to 32 nor a netmask"},
        {withRoute(R"("destination":"10.20.5.1/16")"),
         "routes[1].destination: 10.20.5.1/16 has bits set after its prefix; the network is 10.20.0.0/16"},
        {withRule(R"("action":"drop","destination":"10.8.0.2/24")"),
         "filter[1].destination: 10.8.0.2/24 has bits set after its prefix; the network is 10.8.0.0/24"},
    });
}

TEST(ProfileTest, NumbersOutOfRange)
{
    expectRefusals({
        {withTunnel(R"("address":"10.8.0.2/24","peer":"10.8.0.1","mtu":67)"),
         "tunnel.mtu: must be a whole number from 68 to 65535"},
        {withTunnel(R"("address":"10.8.0.2/24","peer":"10.8.0.1","mtu":65536)"),
         "tunnel.mtu: must be a whole number from 68 to 65535"},
        {withRoute(R"("destination":"10.0.0.0/8","metric":-1)"),
         "routes[1].metric: must be a whole number from 0 to 4294967295"},
        {withRoute(R"("destination":"10.0.0.0/8","metric":4294967296)"),
         "routes[1].metric: must be a whole number from 0 to 4294967295"},
        {withRoute(R"("destination":"10.0.0.0/8","metric":1.0)"),
         "routes[1].metric: must be a whole number from 0 to 4294967295"},
        {withRule(R"("action":"drop","sourcePort":0)"), "filter[1].sourcePort: must be a whole number from 1 to 65535"},
        {withRule(R"("action":"drop","destinationPort":65536)"),
         "filter[1].destinationPort: must be a whole number from 1 to 65535"},
    });
}

TEST(ProfileTest, GatewayMustBeReachableThroughTheTunnel)
{
    expectRefusals({
        {withRoute(R"("destination":"10.0.0.0/8","gateway":"10.9.0.1")"),
         "routes[1].gateway: 10.9.0.1 cannot be reached through the tunnel, whose network is 10.8.0.0/24"},
        {withRoute(R"("destination":"10.0.0.0/8","gateway":"10.8.0.2")"),
         "routes[1].gateway: 10.8.0.2 is the tunnel's own address"},
        {R"({"tunnel":{"address":"10.8.0.2","peer":"192.0.2.1"},"routes":[{"destination":"default","gateway":"192.0.2.2"}]})",
         "routes[0].gateway: 192.0.2.2 cannot be reached through the tunnel, whose network is 192.0.2.1/32"},
    });
}

TEST(ProfileTest, SameRouteTwiceIsRefusedUnlessTheMetricsDiffer)
{
    EXPECT_EQ("routes[1]: goes where routes[0] goes already, with the same metric",
              errorOf(withRoute(R"("destination":"10.20.0.0/255.255.0.0","gateway":"10.8.0.9")")));
    EXPECT_EQ(2u, parsed(withRoute(R"("destination":"10.20.0.0/16","metric":1)")).routes.size());
}

TEST(ProfileTest, RulesThatThePlatformWouldRefuseOrMisunderstand)
{
    expectRefusals({
        {withRule(R"("action":"reject")"), "filter[1].action: \"reject\" is none of \"accept\", \"drop\""},
        {withRule(R"("action":"drop","direction":"both")"),
         "filter[1].direction: \"both\" is none of \"in\", \"out\", \"any\""},
        {withRule(R"("action":"drop","protocol":"TCP")"),
         "filter[1].protocol: \"TCP\" is none of \"any\", \"icmp\", \"tcp\", \"udp\""},
        {withRule(R"("action":"drop","protocol":"icmp","sourcePort":5)"),
         "filter[1].sourcePort: the protocol \"icmp\" has no ports"},
        {withRule(R"("action":"drop","protocol":"icmp","destinationPort":5)"),
         "filter[1].destinationPort: the protocol \"icmp\" has no ports"},
        {withRule(R"("action":"drop","direction":"in")"), "filter[1].direction: \"in\" and \"out\" need an interface"},
        {withRule(R"("action":"drop","interface":"eth0")"),
         "filter[1].interface: needs the direction \"in\" or \"out\""},
    });
}

TEST(ProfileTest, InterfaceNames)
{
    const auto errorFor = [](const std::string& name) {
        return errorOf(withRule(R"("action":"drop","direction":"in","interface":")" + name + "\""));
    };
    EXPECT_EQ("no error", errorFor("fifteen-letters"));
    EXPECT_EQ("filter[1].interface: \"sixteen-letters0\" is longer than the 15 characters of an interface name",
              errorFor("sixteen-letters0"));
    EXPECT_EQ("filter[1].interface: an interface name must not be empty", errorFor(""));
    for (const char* name : {"eth 0", "eth/0", "eth0;drop", "*", "..", "eth+"}) {
        EXPECT_EQ(std::string("filter[1].interface: \"") + name +
                      "\" is no interface name: letters, digits, '_', '-' and '.' make one",
                  errorFor(name));
    }
}

TEST(ProfileTest, Domains)
{
    const auto errorFor = [](const std::string& name) {
        return errorOf(with(R"("dns":{"domains":[")" + name + "\"]}"));
    };
    const std::string label(63, 'a');
    EXPECT_EQ("no error", errorFor(label + ".example"));
    const std::string longest = label + "." + label + "." + label + "." + std::string(61, 'b');
    EXPECT_EQ("no error", errorFor(longest));
    EXPECT_NE("no error", errorFor(longest + "b"));
    for (const std::string& name : {std::string(), std::string("."), std::string("a..b"), std::string("-a.b"),
                                    std::string("a b"), std::string("~a"), label + "a"}) {
        EXPECT_THAT(errorFor(name), testing::HasSubstr("is no domain name")) << name;
    }
}

TEST(ProfileTest, OneMebibyteOfTextIsShownInPart)
{
    const std::string error = errorOf(withRoute(R"("destination":")" + std::string(1 << 20, '1') + "\""));
    EXPECT_EQ("routes[1].destination: \"" + std::string(40, '1') + "...\" is no IPv4 address", error);
}

TEST(ProfileTest, DeepNestingIsAnErrorAndNoCrash)
{
    EXPECT_NE("no error", errorOf(std::string(1 << 20, '[')));
}

class ProfileFileTest : public testing::Test {
protected:
    static std::string errorOfFile(const std::string& file)
    {
        try {
            loadProfile(file);
        } catch (const CommandError& error) {
            EXPECT_EQ(ExitUsage, error.exitCode());
            return error.what();
        }
        return "no error";
    }
};

TEST_F(ProfileFileTest, UnreadableFiles)
{
    EXPECT_EQ("/tmp/none.json: No such file or directory; give a profile that can be read",
              errorOfFile("/tmp/none.json"));
    EXPECT_EQ("/tmp: Is a directory; give a profile that can be read", errorOfFile("/tmp"));
}

TEST_F(ProfileFileTest, FileThatNeverEnds)
{
    EXPECT_EQ("/dev/zero: is larger than 64 MiB; a profile is a small JSON file", errorOfFile("/dev/zero"));
}

// The example that the documentation shows, taken from there.
TEST_F(ProfileFileTest, DocumentedExampleIsAProfile)
{
    std::ifstream page(WFOAL_SOURCE_DIR "/docs/profile.md");
    const std::string text((std::istreambuf_iterator<char>(page)), std::istreambuf_iterator<char>());
    const auto begin = text.find("```json\n") + 8;
    ASSERT_NE(std::string::npos + 8, begin);
    const std::string example = text.substr(begin, text.find("```", begin) - begin);
    const Profile profile = parsed(example);
    EXPECT_FALSE(profile.dnsServers.empty() || profile.dnsDomains.empty());
    EXPECT_FALSE(profile.routes.empty() || profile.filter.empty());
}

}  // namespace
}  // namespace vpnoalctl
