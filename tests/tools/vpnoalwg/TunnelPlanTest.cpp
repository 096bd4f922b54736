// SPDX-License-Identifier: Apache-2.0
#include "config/TunnelPlan.h"

#include <gmock/gmock.h>

#include <string>

namespace vpnoalwg {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char head[] =
    "[Interface]\n"
    "PrivateKey = oK56DE9Ue9zK76rAc8pBl6opph+1v36lm7cXXsQKrQM=\n"
    "Address = 10.8.0.2/24\n";
constexpr char peer[] =
    "[Peer]\n"
    "PublicKey = GtL7fZc/bLnqZldpVofMCD6hDjrK28SsdLxevJ+qtKU=\n";

WgConfig parsed(const std::string& text)
{
    auto config = parseWgConfig(text);
    if (!config) {
        ADD_FAILURE() << config.reason();
        return {};
    }
    return std::move(*config);
}

WgConfig withPeer(const std::string& lines, const std::string& interfaceLines = {})
{
    return parsed(head + interfaceLines + peer + lines);
}

std::vector<std::string> routesOf(const WgConfig& config)
{
    std::vector<std::string> texts;
    for (const auto& route : profileOf(config).routes) {
        EXPECT_EQ(0U, route.gateway.bits);
        EXPECT_EQ(0U, route.metric);
        texts.push_back(wfoal::withPrefix(route.destination));
    }
    return texts;
}

TEST(TunnelPlanTest, ThePartOfWgHasTheValuesAsTheyWereWritten)
{
    const WgConfig config = withPeer(
        "PresharedKey = /UwcSPg38hW/D9Y3tcS1FOV0K1wuURMbS0sesJEP5ak=\n"
        "AllowedIPs = 10.0.0.0/8, fd00::/8\nEndpoint = vpn.example:51820\nPersistentKeepalive = off\n",
        "ListenPort = 51820\nFwMark = 0xca6c\nDNS = 10.8.0.1\nMTU = 1400\nPostUp = true\n");
    const auto address = numericAddress({"192.0.2.1", 51820});
    EXPECT_EQ(
        "[Interface]\n"
        "PrivateKey = oK56DE9Ue9zK76rAc8pBl6opph+1v36lm7cXXsQKrQM=\n"
        "ListenPort = 51820\n"
        "FwMark = 0xca6c\n"
        "[Peer]\n"
        "PublicKey = GtL7fZc/bLnqZldpVofMCD6hDjrK28SsdLxevJ+qtKU=\n"
        "PresharedKey = /UwcSPg38hW/D9Y3tcS1FOV0K1wuURMbS0sesJEP5ak=\n"
        "AllowedIPs = 10.0.0.0/8,fd00::/8\n"
        "Endpoint = 192.0.2.1:51820\n"
        "PersistentKeepalive = off\n",
        wgPartOf(config, {address}));
    EXPECT_EQ(
        "[Interface]\n"
        "PrivateKey = oK56DE9Ue9zK76rAc8pBl6opph+1v36lm7cXXsQKrQM=\n"
        "[Peer]\n"
        "PublicKey = GtL7fZc/bLnqZldpVofMCD6hDjrK28SsdLxevJ+qtKU=\n",
        wgPartOf(withPeer(""), {std::nullopt}));
}

TEST(TunnelPlanTest, EndpointsThatAreAddressesNeedNoResolver)
{
    EXPECT_EQ("192.0.2.1:51820", numericAddress({"192.0.2.1", 51820})->text);
    EXPECT_EQ("[2001:db8::1]:51820", numericAddress({"2001:db8::1", 51820})->text);
    EXPECT_EQ("[fe80::1%eth0]:51820", numericAddress({"fe80::1%eth0", 51820})->text);
    EXPECT_FALSE(numericAddress({"vpn.example", 51820}));
}

TEST(TunnelPlanTest, RoutesAreTheAllowedNetworksEachOnce)
{
    const std::string second = std::string(peer) + "AllowedIPs = 10.30.0.0/16, 10.20.0.0/16\n";
    EXPECT_THAT(routesOf(withPeer("AllowedIPs = 10.20.1.7/16, 192.168.1.1\n" + second)),
                ElementsAre("10.20.0.0/16", "10.30.0.0/16", "192.168.1.1/32"));
    EXPECT_THAT(routesOf(withPeer("AllowedIPs = 0.0.0.0/0, ::/0\n")), ElementsAre("0.0.0.0/0"));
}

TEST(TunnelPlanTest, TheDevicesOwnNetworkNeedsNoRoute)
{
    EXPECT_THAT(routesOf(withPeer("AllowedIPs = 10.8.0.0/24, 10.8.0.1/32, 10.8.0.0/16\n")), ElementsAre("10.8.0.0/16"));
}

TEST(TunnelPlanTest, OtherTablesHaveNoRoutesOfTheProfile)
{
    EXPECT_THAT(routesOf(withPeer("AllowedIPs = 0.0.0.0/0\n", "Table = off\n")), IsEmpty());
    EXPECT_THAT(routesOf(withPeer("AllowedIPs = 0.0.0.0/0\n", "Table = 1234\n")), IsEmpty());
}

TEST(TunnelPlanTest, DnsOfTheProfile)
{
    const auto profile = profileOf(withPeer("", "DNS = 10.8.0.1, fd00::1, corp.example, 10.8.0.53, lab.example\n"));
    EXPECT_THAT(profile.dnsServers, ElementsAre("10.8.0.1", "10.8.0.53"));
    EXPECT_THAT(profile.dnsDomains, ElementsAre("corp.example", "lab.example"));
    EXPECT_FALSE(profile.tunnel) << "the device says its address";
}

TEST(TunnelPlanTest, ServersAreThePeersOutsideOfThisMachine)
{
    const PeerAddresses peers = {numericAddress({"192.0.2.1", 1}), std::nullopt, numericAddress({"127.0.0.1", 1}),
                                 numericAddress({"2001:db8::1", 1}), numericAddress({"::1", 1})};
    const auto servers = serversOf(peers);
    ASSERT_EQ(1U, servers.ipv4.size());
    EXPECT_EQ("192.0.2.1/32", wfoal::withPrefix(servers.ipv4[0]));
    ASSERT_EQ(1U, servers.ipv6.size());
    EXPECT_EQ("2001:db8::1/128", wfoal::withPrefix(servers.ipv6[0]));
}

TEST(TunnelPlanTest, OneWarningForAllOfIpv6)
{
    constexpr char guarded[] =
        "the tunnel carries IPv4 alone, the IPv6 addresses of the file are left out; the guard "
        "rejects IPv6 beside the tunnel";
    constexpr char beside[] =
        "the tunnel carries IPv4 alone, the IPv6 addresses of the file are left out; IPv6 goes "
        "beside the tunnel";
    const char* const full = "AllowedIPs = 0.0.0.0/0, ::/0\n";
    EXPECT_THAT(warningsFor(withPeer(full, "Address = fd00::2/64\nDNS = fd00::1\n"), true), ElementsAre(guarded));
    EXPECT_THAT(warningsFor(withPeer("AllowedIPs = 0.0.0.0/1, 128.0.0.0/1, ::/0\n"), true), ElementsAre(guarded));
    EXPECT_THAT(warningsFor(withPeer(full), false), ElementsAre(beside));
    EXPECT_THAT(warningsFor(withPeer(full, "Table = 7\n"), true), ElementsAre(beside));
    EXPECT_THAT(warningsFor(withPeer("AllowedIPs = 10.0.0.0/8, fd00::/8\n"), true), ElementsAre(beside));
    EXPECT_THAT(warningsFor(withPeer("AllowedIPs = 0.0.0.0/0\n"), false), IsEmpty());
}

TEST(TunnelPlanTest, SaveConfigIsWarnedOf)
{
    EXPECT_THAT(warningsFor(withPeer("", "SaveConfig = true\n"), true),
                ElementsAre("SaveConfig is left out: the file stays as it is"));
}

TEST(TunnelPlanTest, CommandsGetTheDevicesName)
{
    EXPECT_EQ("iptables -o norvatun0; wg show norvatun0 %s", commandFor("iptables -o %i; wg show %i %s", "norvatun0"));
}

TEST(TunnelPlanTest, ATunnelNeedsAnIpv4Address)
{
    EXPECT_TRUE(checkUsable(parsed(head)));
    const auto check = checkUsable(parsed("[Interface]\nAddress = fd00::2/64\n"));
    ASSERT_FALSE(check);
    EXPECT_EQ("[Interface] has no IPv4 address, which the tunnel needs: Address = ADDRESS/PREFIX", check.reason());
}

}  // namespace
}  // namespace vpnoalwg
