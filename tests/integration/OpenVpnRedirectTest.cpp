// SPDX-License-Identifier: Apache-2.0
//
// redirect-gateway with each of its flags and in each topology, with OpenVPN itself: what goes into the tunnel, what
// does not, and that the network is as before at the end.
#include "OpenVpnFixture.h"

namespace openvpntest {

using testing::HasSubstr;
using testing::Not;

class OpenVpnRedirectTest : public OpenVpnFixture {
protected:
    static void expectAllTrafficInTheTunnel()
    {
        EXPECT_THAT(shell("ip route get 198.51.100.80"), HasSubstr("dev norvatun0"));
        const int before = arrived("beside");
        const int earlier = arrived("through");
        {
            const SteadySender sender(behindServer);
            EXPECT_TRUE(comesTrue([earlier] { return arrived("through") > earlier + 50; }));
        }
        EXPECT_EQ(before, arrived("beside"));
    }
    static void expectNoTrafficInTheTunnel()
    {
        EXPECT_THAT(shell("ip route get 198.51.100.80"), HasSubstr("dev eth0"));
        const int earlier = arrived("through");
        expectTheControlToSeePackets();
        EXPECT_EQ(earlier, arrived("through"));
        EXPECT_THAT(shell("nft list tables"), Not(HasSubstr("guard")));
    }
    void addIpv6()
    {
        shell(
            "nsenter --net=/run/netns/vpn ip address add 2001:db8:1::1/64 dev eth0 nodad;"
            "ip address add 2001:db8:1::10/64 dev eth0 nodad; ip -6 route add default via 2001:db8:1::1 dev eth0");
        ASSERT_TRUE(comesTrue([] { return isReached("2001:db8:1::1"); }));
        mBefore = state();
    }
};

struct Topology {
    const char* name;
    const char* address;
};

void PrintTo(const Topology& topology, std::ostream* output)
{
    *output << topology.name;
}

class OpenVpnTopologyTest : public OpenVpnRedirectTest, public testing::WithParamInterface<Topology> {};

TEST_P(OpenVpnTopologyTest, AllTrafficGoesIntoTheTunnel)
{
    startServer(GetParam().name, {"redirect-gateway def1"});
    expectTheControlToSeePackets();
    connect();
    EXPECT_THAT(shell("ip -4 address show norvatun0"), HasSubstr(GetParam().address));
    expectAllTrafficInTheTunnel();
    EXPECT_THAT(shell("ip route get 198.51.100.2"), HasSubstr("dev eth0"));
    disconnect();
}

INSTANTIATE_TEST_SUITE_P(Each, OpenVpnTopologyTest,
                         testing::Values(Topology{"subnet", "inet 10.8.0.2/24 "},
                                         Topology{"net30", "inet 10.8.0.6 peer 10.8.0.5/32 "},
                                         Topology{"p2p", "inet 10.8.0.4 peer 10.8.0.1/32 "}),
                         [](const testing::TestParamInfo<Topology>& of) { return std::string(of.param.name); });

// OpenVPN knows no DHCP server on Linux, so there is nothing to be kept outside.
TEST_F(OpenVpnRedirectTest, BypassDhcpAndBypassDns)
{
    startServer("subnet", {"redirect-gateway def1 bypass-dhcp bypass-dns"});
    connect();
    expectAllTrafficInTheTunnel();
    disconnect();
}

// The local network is two more routes into the tunnel, without its gateway.
TEST_F(OpenVpnRedirectTest, BlockLocal)
{
    startServer("subnet", {"redirect-gateway def1 block-local"});
    shell("nsenter --net=/run/netns/vpn ip address add 192.0.2.77/24 dev eth0");
    ASSERT_TRUE(isReached("192.0.2.77"));
    connect();
    expectAllTrafficInTheTunnel();
    EXPECT_THAT(routes(), HasSubstr("192.0.2.0/25 via 10.8.0.1 dev norvatun0 proto 119"));
    EXPECT_THAT(routes(), HasSubstr("192.0.2.128/25 via 10.8.0.1 dev norvatun0 proto 119"));
    EXPECT_THAT(shell("ip route get 192.0.2.77"), HasSubstr("dev norvatun0"));
    EXPECT_THAT(shell("ip route get 198.51.100.2"), HasSubstr("via 192.0.2.1 dev eth0"));
    disconnect();
}

// The server is on the local network: it needs no route of its own.
TEST_F(OpenVpnRedirectTest, Local)
{
    mServerAddress = "192.0.2.1";
    startServer("subnet", {"redirect-gateway def1 local"});
    connect();
    expectAllTrafficInTheTunnel();
    EXPECT_THAT(shell("ip route get 192.0.2.1"), HasSubstr("192.0.2.1 dev eth0"));
    EXPECT_THAT(routes(), Not(HasSubstr("192.0.2.1 via")));
    disconnect();
}

TEST_F(OpenVpnRedirectTest, WithoutIpv4NothingIsRedirected)
{
    startServer("subnet", {"redirect-gateway def1 !ipv4", "route 10.20.0.0 255.255.255.240"});
    connect();
    expectNoTrafficInTheTunnel();
    EXPECT_THAT(routes(), HasSubstr("10.20.0.0/28 via 10.8.0.1 dev norvatun0 proto 119"));
    disconnect();
}

// OpenVPN itself sets the address and the routes of IPv6, and the guard lets the tunnel's packets through.
TEST_F(OpenVpnRedirectTest, Ipv6GoesIntoTheTunnelByOpenVpnsOwnRoutes)
{
    addIpv6();
    startServer("subnet", {"redirect-gateway def1 ipv6", "ifconfig-ipv6 fd00::5/64 fd00::1"});
    connect();
    expectAllTrafficInTheTunnel();
    EXPECT_THAT(contentOf(clientLog), HasSubstr("openvpn-hook: warning: not applied: the tunnel's IPv6 address"));
    EXPECT_THAT(shell("ip route get 2001:db8:9::1"), HasSubstr("dev norvatun0"));
    EXPECT_FALSE(isReached("2001:db8:1::1"));
    disconnect();
    EXPECT_TRUE(isReached("2001:db8:1::1"));
}

TEST_F(OpenVpnRedirectTest, Ipv6WithoutIpv4IsNotRedirectedByTheHook)
{
    addIpv6();
    startServer("subnet", {"redirect-gateway ipv6 !ipv4", "ifconfig-ipv6 fd00::5/64 fd00::1"});
    connect();
    expectNoTrafficInTheTunnel();
    EXPECT_THAT(shell("ip route get 2001:db8:9::1"), HasSubstr("dev norvatun0"));
    disconnect();
}

TEST_F(OpenVpnRedirectTest, Ipv6BesideTheTunnelIsRejected)
{
    addIpv6();
    startServer("subnet", {"redirect-gateway def1"});
    connect();
    EXPECT_FALSE(isReached("2001:db8:1::1"));
    disconnect();
    EXPECT_TRUE(isReached("2001:db8:1::1"));
}

// What the test above would see without the hook.
TEST_F(OpenVpnRedirectTest, OpenVpnByItselfLetsIpv6Beside)
{
    mHasHook = false;
    addIpv6();
    startServer("subnet", {"redirect-gateway def1"});
    connect();
    EXPECT_TRUE(isReached("2001:db8:1::1"));
    disconnect();
}

// As the manual page says, OpenVPN 2.6 does not tell its scripts the difference.
TEST_F(OpenVpnRedirectTest, RedirectPrivateIsTakenForRedirectGateway)
{
    startServer("subnet", {"redirect-private def1"});
    connect();
    expectAllTrafficInTheTunnel();
    disconnect();
}

// The agent is handed the same, and finds what the server's flags want.
TEST_F(OpenVpnRedirectTest, AllFlagsAtOnceInTheAgent)
{
    startServer("subnet", {"redirect-gateway def1 bypass-dhcp bypass-dns block-local"});
    mHasHook = false;  // the command brings it
    Words words{program, "run", "--"};
    const Words client = clientWords({"--config", "/tmp/openvpn.conf"});
    words.insert(words.end(), client.begin(), client.end());
    unlink(clientLog);
    mClient = ChildProcess(words);
    ASSERT_TRUE(comesTrue([] { return timesConnected() != 0; })) << contentOf(clientLog);
    expectAllTrafficInTheTunnel();
    EXPECT_THAT(shell("ip route get 192.0.2.77"), HasSubstr("dev norvatun0"));
    shell("ip link set eth0 down");
    EXPECT_TRUE(comesTrue([] { return isReached("10.20.0.80"); }));
    EXPECT_THAT(shell("ip route get 198.51.100.2"), HasSubstr("dev wwan0"));
    shell("ip link set eth0 up; ip -6 address flush dev eth0; ip route add default via 192.0.2.1 dev eth0 metric 100");
    EXPECT_TRUE(comesTrue([] { return shell("ip route get 198.51.100.2").find("dev eth0") != std::string::npos; }));
    expectAllTrafficInTheTunnel();
    disconnect();
}

}  // namespace openvpntest
