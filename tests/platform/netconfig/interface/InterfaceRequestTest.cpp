// SPDX-License-Identifier: Apache-2.0
#include "interface/InterfaceRequest.h"

#include <gmock/gmock.h>

#include "AddressForm.h"
#include "ErrorOf.h"
#include "RequestError.h"

using namespace vknetconfig;
using testing::ElementsAre;
using testing::MatchesRegex;

namespace {

// Addresses are as in AddressForm.h.
InterfaceRequest parse(const std::string& json)
{
    return parseInterfaceRequest(testsupport::onThisMachine(json).c_str());
}

std::string errorOf(const std::string& json)
{
    return testsupport::errorOf<RequestError>([&] { parse(json); });
}

std::string errorOfIpv4(const std::string& ipv4)
{
    return errorOf(R"({"ifName":"tun0","ipv4":{)" + ipv4 + "}}");
}

std::string errorOfRoute(const std::string& route)
{
    const std::string good = R"({"ip":"10.0.0.0","netmask":"255.0.0.0","gateway":"","metric":0})";
    return errorOfIpv4(R"("additionalIfRoutes":[)" + good + "," + route + "]");
}

std::vector<std::string> shown(const InterfaceRequest& request)
{
    std::vector<std::string> texts;
    for (const Route& route : request.routes) {
        texts.push_back(wfoal::dotted({route.destination}) + "/" + std::to_string(route.prefix) + " " +
                        wfoal::dotted({route.gateway}) + " " + std::to_string(route.metric));
    }
    return texts;
}

}  // namespace

TEST(InterfaceRequestTest, ReadsTheWholeRequest)
{
    const InterfaceRequest request = parse(R"({
        "ipv4":{"dns":["0x0100080a"],"additionalIfRoutes":[
            {"ip":"192.168.0.0","netmask":"255.255.0.0","gateway":"10.8.0.1","metric":4294967295}],
            "ip":"0x0200080a","netmask":"0x00ffffff"},
        "domainsOnIfDns":["example.net","b.example.net."],"ifName":"norvatun0","ifPriority":5,
        "networkTechnology":"vpn","networkScope":"wan","networkUsage":["internet"]})");
    EXPECT_EQ(request.ifName, "norvatun0");
    ASSERT_TRUE(request.address);
    EXPECT_EQ(wfoal::dotted({request.address->local}), "10.8.0.2");
    EXPECT_EQ(request.address->prefix, 24);
    EXPECT_THAT(shown(request), ElementsAre("192.168.0.0/16 10.8.0.1 4294967295"));
    ASSERT_EQ(request.dns.servers.size(), 1U);
    EXPECT_EQ(dotted(request.dns.servers[0]), "10.8.0.1");
    EXPECT_THAT(request.dns.domains, ElementsAre("example.net", "b.example.net."));
    EXPECT_FALSE(request.dns.allTraffic);
}

TEST(InterfaceRequestTest, OnlyTheNameIsRequired)
{
    EXPECT_TRUE(parse(R"({"ifName":"abcdefghijklmno"})").dns.empty());
    EXPECT_TRUE(parse(R"({"ifName":"tun0","ipv4":{"dns":[],"additionalIfRoutes":[]}})").dns.empty());
}

TEST(InterfaceRequestTest, AGatewayOfNullOrNothingOrZeroIsADeviceRoute)
{
    for (const char* gateway : {R"(,"gateway":null)", R"(,"gateway":"")", R"(,"gateway":"0.0.0.0")", ""}) {
        const std::string json =
            R"({"ifName":"tun0","ipv4":{"additionalIfRoutes":[{"ip":"10.0.0.0","netmask":"255.0.0.0")" +
            std::string(gateway) + "}]}}";
        EXPECT_THAT(shown(parse(json)), ElementsAre("10.0.0.0/8 0.0.0.0 0")) << gateway;
    }
}

TEST(InterfaceRequestTest, AGatewayOfTheInterfaceBecomesTwoHalves)
{
    const InterfaceRequest request = parse(R"({"ifName":"tun0","ipv4":{"gateway":"0x0100080a"}})");
    EXPECT_THAT(shown(request), ElementsAre("0.0.0.0/1 10.8.0.1 0", "128.0.0.0/1 10.8.0.1 0"));
    EXPECT_TRUE(request.dns.allTraffic);
    EXPECT_EQ(request.routeKey(1), "ipv4.gateway");
}

TEST(InterfaceRequestTest, ADefaultRouteBecomesTwoHalvesAndOutdoesTheGateway)
{
    const InterfaceRequest request = parse(
        R"({"ifName":"tun0","ipv4":{"gateway":"0x0100080a","additionalIfRoutes":[
            {"ip":"10.0.0.0","netmask":"255.0.0.0"},{"ip":"0.0.0.0","netmask":"0.0.0.0","gateway":"10.8.0.9","metric":7}]}})");
    EXPECT_THAT(shown(request), ElementsAre("10.0.0.0/8 0.0.0.0 0", "0.0.0.0/1 10.8.0.9 7", "128.0.0.0/1 10.8.0.9 7"));
    EXPECT_EQ(request.routeKey(2), "ipv4.additionalIfRoutes[1]");
}

TEST(InterfaceRequestTest, TheInterfacesOwnAddressAsGatewayIsTheDeviceItself)
{
    const InterfaceRequest request =
        parse(R"({"ifName":"tun0","ipv4":{"ip":"0x0200080a","netmask":"0xffffffff","gateway":"0x0200080a"}})");
    EXPECT_THAT(shown(request), ElementsAre("0.0.0.0/1 0.0.0.0 0", "128.0.0.0/1 0.0.0.0 0"));
}

TEST(InterfaceRequestTest, WrongTypesAreRefusedNamingTheKey)
{
    EXPECT_EQ(errorOf("null"), "the request: must be an object");
    EXPECT_EQ(errorOf("{}"), "ifName: missing");
    EXPECT_EQ(errorOf(R"({"ifName":7})"), "ifName: must be a text");
    EXPECT_EQ(errorOf(R"({"ifName":"tun0","ipv4":[]})"), "ipv4: must be an object");
    EXPECT_EQ(errorOf(R"({"ifName":"tun0","ifPriority":"5"})"),
              "ifPriority: must be a whole number from -2147483648 to 2147483647");
    EXPECT_EQ(errorOf(R"({"ifName":"tun0","networkUsage":"internet"})"), "networkUsage: must be an array");
    EXPECT_EQ(errorOf(R"({"ifName":"tun0","networkUsage":[1]})"), "networkUsage[0]: must be a text");
    EXPECT_EQ(errorOf(R"({"ifName":"tun0","networkScope":null})"), "networkScope: must be a text");
    EXPECT_EQ(errorOf(R"({"ifName":"tun0","domainsOnIfDns":{}})"), "domainsOnIfDns: must be an array");
    EXPECT_EQ(errorOfIpv4(R"("dns":"0x0100080a")"), "ipv4.dns: must be an array");
    EXPECT_EQ(errorOfIpv4(R"("ip":1)"), "ipv4.ip: must be a text");
    EXPECT_EQ(errorOfIpv4(R"("additionalIfRoutes":{})"), "ipv4.additionalIfRoutes: must be an array");
    EXPECT_EQ(errorOfRoute("[]"), "ipv4.additionalIfRoutes[1]: must be an object");
}

TEST(InterfaceRequestTest, UnknownKeysAreRefused)
{
    EXPECT_EQ(errorOf(R"({"ifName":"tun0","ipv6":{}})"), "ipv6: unknown key; perhaps \"ipv4\" is meant");
    EXPECT_EQ(errorOfIpv4(R"("mtu":1400)"), "ipv4.mtu: unknown key");
    EXPECT_EQ(errorOfRoute(R"({"ip":"10.0.0.0","netmask":"255.0.0.0","dev":"eth0"})"),
              "ipv4.additionalIfRoutes[1].dev: unknown key");
}

TEST(InterfaceRequestTest, AddressesAreHexOfEightDigits)
{
    for (const char* key : {"ip", "netmask", "gateway"}) {
        EXPECT_EQ(errorOfIpv4("\"" + std::string(key) + R"(":"10.8.0.2")"),
                  "ipv4." + std::string(key) + R"(: must be "0x" and eight hex digits, not "10.8.0.2")");
    }
    EXPECT_EQ(errorOfIpv4(R"("dns":["0x0100080a","0x1000000000"])"),
              R"(ipv4.dns[1]: must be "0x" and eight hex digits, not "0x1000000000")");
    EXPECT_EQ(errorOfIpv4(R"("dns":["0x00000000"])"), "ipv4.dns[0]: 0.0.0.0 is no server");
}

TEST(InterfaceRequestTest, AddressAndNetmaskBelongTogether)
{
    EXPECT_EQ(errorOfIpv4(R"("ip":"0x0200080a")"), "ipv4.netmask: missing, while \"ip\" is given");
    EXPECT_EQ(errorOfIpv4(R"("netmask":"0x00ffffff")"), "ipv4.ip: missing, while \"netmask\" is given");
    EXPECT_EQ(errorOfIpv4(R"("ip":"0x00000000","netmask":"0x00ffffff")"),
              "ipv4.ip: 0.0.0.0 is no address for an interface");
}

TEST(InterfaceRequestTest, NetmasksHaveNoHoles)
{
    EXPECT_EQ(errorOfIpv4(R"("ip":"0x0200080a","netmask":"0xff00ff00")"),
              "ipv4.netmask: a netmask without holes is needed, not 0.255.0.255");
    EXPECT_EQ(errorOfRoute(R"({"ip":"10.0.0.0","netmask":"255.0.255.0"})"),
              "ipv4.additionalIfRoutes[1].netmask: a netmask without holes is needed, not 255.0.255.0");
}

TEST(InterfaceRequestTest, ARouteHasNoBitsOutsideItsNetmask)
{
    EXPECT_EQ(errorOfRoute(R"({"ip":"10.0.0.1","netmask":"255.0.0.0"})"),
              "ipv4.additionalIfRoutes[1]: \"ip\" 10.0.0.1 has bits outside of \"netmask\" 255.0.0.0");
}

TEST(InterfaceRequestTest, ARouteWithNullValuesIsRefusedNamingTheKey)
{
    EXPECT_EQ(errorOfRoute(R"({"ip":null,"netmask":"255.0.0.0"})"), "ipv4.additionalIfRoutes[1].ip: must be a text");
    EXPECT_EQ(errorOfRoute(R"({"ip":"10.0.0.0","netmask":null})"),
              "ipv4.additionalIfRoutes[1].netmask: must be a text");
    EXPECT_EQ(errorOfRoute(R"({"ip":"10.0.0.0","netmask":"255.0.0.0","metric":null})"),
              "ipv4.additionalIfRoutes[1].metric: must be a whole number from 0 to 4294967295");
    EXPECT_EQ(errorOfRoute(R"({"netmask":"255.0.0.0"})"), "ipv4.additionalIfRoutes[1].ip: missing");
    EXPECT_EQ(errorOfRoute("null"), "ipv4.additionalIfRoutes[1]: must be an object");
}

TEST(InterfaceRequestTest, RouteAddressesAreDotted)
{
    EXPECT_EQ(errorOfRoute(R"({"ip":"10.0.0.256","netmask":"255.0.0.0"})"),
              "ipv4.additionalIfRoutes[1].ip: must be a dotted IPv4 address, not \"10.0.0.256\"");
    EXPECT_EQ(errorOfRoute(R"({"ip":"10.0.0.0","netmask":"8"})"),
              "ipv4.additionalIfRoutes[1].netmask: must be a dotted IPv4 address, not \"8\"");
    EXPECT_EQ(errorOfRoute(R"({"ip":"10.0.0.0","netmask":"255.0.0.0","gateway":"fe80::1"})"),
              "ipv4.additionalIfRoutes[1].gateway: must be a dotted IPv4 address, not \"fe80::1\"");
}

TEST(InterfaceRequestTest, AMetricIsFrom0To4294967295)
{
    for (const char* metric : {"-1", "4294967296", "1.5", "\"5\"", "1e3", "true"}) {
        EXPECT_EQ(errorOfRoute(R"({"ip":"10.0.0.0","netmask":"255.0.0.0","metric":)" + std::string(metric) + "}"),
                  "ipv4.additionalIfRoutes[1].metric: must be a whole number from 0 to 4294967295");
    }
}

TEST(InterfaceRequestTest, InterfaceNamesAreShortAndPlain)
{
    EXPECT_EQ(errorOf(R"({"ifName":""})"), "ifName: an interface name must not be empty");
    EXPECT_EQ(errorOf(R"({"ifName":"abcdefghijklmnop"})"),
              "ifName: \"abcdefghijklmnop\" is longer than the 15 characters of an interface name");
    for (const char* name : {".", "..", "tun/0", "tun 0", "tun;0", "tun$0", "tun:0", "t\\u00fcn0", "tun\\n0", "tun*"}) {
        EXPECT_THAT(errorOf("{\"ifName\":\"" + std::string(name) + "\"}"),
                    MatchesRegex("ifName: \".*\" is no interface name: letters, digits, '_', '-' and '.' make one"))
            << name;
    }
}

TEST(InterfaceRequestTest, DomainsAreNames)
{
    for (const std::string& domain : {std::string(), std::string("a..b"), std::string("a b"), std::string("a/b"),
                                      std::string(64, 'a'), std::string("a.") + std::string(300, 'b'),
                                      std::string("-a.b"), std::string("a-.b"), std::string("~"), std::string("..")}) {
        EXPECT_EQ(errorOf(R"({"ifName":"tun0","domainsOnIfDns":["a.example",")" + domain + "\"]}")
                      .find("domainsOnIfDns[1]: "),
                  0U)
            << domain;
    }
}

TEST(InterfaceRequestTest, ATildeAndATrailingDotStayWithADomain)
{
    const InterfaceRequest request =
        parse(R"({"ifName":"tun0","domainsOnIfDns":["~corp.example","b.example.","~c.example.",".","~.","a-b._tcp"]})");
    EXPECT_THAT(request.dns.domains, ElementsAre("~corp.example", "b.example.", "~c.example.", ".", "~.", "a-b._tcp"));
}

TEST(InterfaceRequestTest, OneMebibyteOfTextInAValueIsRefusedAndShownInPart)
{
    const std::string text(1 << 20, 'x');
    const std::string part = "\"" + text.substr(0, 40) + "...\"";
    EXPECT_EQ(errorOf("{\"ifName\":\"" + text + "\"}"),
              "ifName: " + part + " is longer than the 15 characters of an interface name");
    EXPECT_EQ(errorOfIpv4("\"ip\":\"" + text + "\""), "ipv4.ip: must be \"0x\" and eight hex digits, not " + part);
    EXPECT_EQ(errorOfRoute("{\"ip\":\"" + text + "\",\"netmask\":\"255.0.0.0\"}"),
              "ipv4.additionalIfRoutes[1].ip: must be a dotted IPv4 address, not " + part);
}
