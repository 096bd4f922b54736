// SPDX-License-Identifier: Apache-2.0
//
// openvpn-hook with OpenVPN itself: what the server pushes is what the kernel and the resolver have.
#include "Daemons.h"
#include "OpenVpnFixture.h"

namespace openvpntest {

using testing::HasSubstr;
using testing::Not;
using testsupport::CommandResult;
using testsupport::Daemon;

class OpenVpnTest : public OpenVpnFixture {
protected:
    void expectSplitTunnel(const std::string& address)
    {
        EXPECT_THAT(shell("ip -4 address show norvatun0"), HasSubstr(address));
        EXPECT_THAT(routes(), HasSubstr("10.20.0.0/16 via "));
        EXPECT_THAT(routes(), HasSubstr("dev norvatun0 proto 119 metric 33"));
        EXPECT_THAT(shell("ip route get 198.51.100.80"), HasSubstr("dev eth0"));
        EXPECT_TRUE(isReached("10.20.0.80"));
        EXPECT_EQ(0, arrived("beside"));
        EXPECT_THAT(contentOf(clientLog), Not(HasSubstr("WARNING: Failed running")));
    }
    void expectRefused(const std::string& text)
    {
        EXPECT_TRUE(comesTrue([this] { return !mClient.running(); }));
        mClient.stop();
        EXPECT_THAT(contentOf(clientLog), HasSubstr(text));
        EXPECT_EQ(mBefore, state());
    }
    void start(const Words& more = {})
    {
        unlink(clientLog);
        mClient = ChildProcess(clientWords(more));
    }
};

const Words splitPushes{"route 10.20.0.0 255.255.0.0", "route 10.21.0.0 255.255.0.0 vpn_gateway 33",
                        "route 203.0.113.128 255.255.255.128 net_gateway"};

TEST_F(OpenVpnTest, TopologySubnet)
{
    startServer("subnet", splitPushes);
    const auto milliseconds = static_cast<long>(connect());
    RecordProperty("millisecondsToConnected", std::to_string(milliseconds));
    std::printf("connected after %ld ms\n", milliseconds);
    expectSplitTunnel("inet 10.8.0.2/24 ");
    disconnect();
}

TEST_F(OpenVpnTest, TopologyNet30)
{
    startServer("net30", splitPushes);
    connect();
    expectSplitTunnel("inet 10.8.0.6 peer 10.8.0.5/32 ");
    disconnect();
}

TEST_F(OpenVpnTest, TopologyP2p)
{
    startServer("p2p", splitPushes);
    connect();
    expectSplitTunnel("inet 10.8.0.4 peer 10.8.0.1/32 ");
    disconnect();
}

TEST_F(OpenVpnTest, AllTrafficGoesIntoTheTunnel)
{
    startServer("subnet", {"redirect-gateway def1"});
    expectTheControlToSeePackets();
    connect();
    const int before = arrived("beside");
    {
        const SteadySender sender(behindServer);
        EXPECT_TRUE(comesTrue([] { return arrived("through") > 100; }));
    }
    EXPECT_EQ(before, arrived("beside"));
    EXPECT_THAT(shell("ip route get 198.51.100.80"), HasSubstr("dev norvatun0"));
    EXPECT_THAT(shell("ip route get 198.51.100.2"), HasSubstr("dev eth0"));
    EXPECT_THAT(routes(), HasSubstr("0.0.0.0/1 dev norvatun0 proto 119"));
    EXPECT_THAT(shell("nft list tables"), HasSubstr("table inet vknetconfig-guard-norvatun0"));
    disconnect();
}

// OpenVPN brings its route back without the metric that it had.
TEST_F(OpenVpnTest, AServerThatTakesTheDefaultRouteAwayIsRefused)
{
    startServer("subnet", {"redirect-gateway"});
    shell("ip route delete default dev eth0; ip route add default via 192.0.2.1 dev eth0");
    mBefore = state();
    start();
    expectRefused(
        "openvpn-hook: redirect_gateway: the server's 'redirect-gateway' has no 'def1', and OpenVPN removed the "
        "default route; write 'redirect-gateway def1' into OpenVPN's configuration");
    connect({"--redirect-gateway", "def1"});
    EXPECT_THAT(shell("ip route get 198.51.100.80"), HasSubstr("dev norvatun0"));
    disconnect();
}

TEST_F(OpenVpnTest, DnsGoesToSystemdResolved)
{
    if (const std::string reason = testsupport::daemonUnavailable(Daemon::resolved); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const ChildProcess bus = testsupport::startBus();
    ChildProcess resolved = testsupport::startDaemon(Daemon::resolved);
    startServer("subnet", {"dhcp-option DNS 10.8.0.1", "dhcp-option DOMAIN corp.example",
                           "dhcp-option DOMAIN-SEARCH lab.example", "dhcp-option DNS6 fd00::1"});
    connect({"--setenv", "DBUS_SYSTEM_BUS_ADDRESS", getenv("DBUS_SYSTEM_BUS_ADDRESS")});
    const std::string tool = testsupport::daemonTool("resolvectl");
    EXPECT_THAT(shell(tool + " dns norvatun0"), HasSubstr("(norvatun0): 10.8.0.1\n"));
    EXPECT_THAT(shell(tool + " domain norvatun0"), HasSubstr("(norvatun0): corp.example lab.example\n"));
    EXPECT_THAT(contentOf(clientLog), HasSubstr("openvpn-hook: warning: not applied: the DNS server fd00::1\n"));
    disconnect();
}

TEST_F(OpenVpnTest, TheDocumentationShowsTheInstalledLines)
{
    const std::string page = contentOf(WFOAL_SOURCE_DIR "/docs/openvpn.md");
    std::ifstream file(WFOAL_SOURCE_DIR "/packaging/openvpn/openvpn.conf.in");
    std::string shown;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind('#', 0) != 0) shown += line + "\n";
    }
    for (auto at = shown.find("@WFOAL_HOOK@"); at != std::string::npos; at = shown.find("@WFOAL_HOOK@"))
        shown.replace(at, 12, "/usr/lib/vpnwfoal/openvpn-hook");
    EXPECT_THAT(page, HasSubstr("```text\n" + shown + "```\n"));
}

TEST_F(OpenVpnTest, IPv6IsWarnedAbout)
{
    startServer("subnet", {"ifconfig-ipv6 fd00::5/64 fd00::1", "route-ipv6 2001:db8::/32"});
    connect();
    EXPECT_THAT(contentOf(clientLog),
                HasSubstr("openvpn-hook: warning: not applied: the tunnel's IPv6 address, 1 IPv6 route\n"));
    disconnect();
}

TEST_F(OpenVpnTest, AnotherDeviceIsRefused)
{
    startServer("subnet", {});
    start({"--dev", "tun7"});
    expectRefused(
        "openvpn-hook: dev: the tunnel's device is \"tun7\", of type \"tun\"; write 'dev norvatun0' and "
        "'dev-type tun' into OpenVPN's configuration; nothing was changed\n");
}

TEST_F(OpenVpnTest, ValuesOfTheServerThatCannotBeUsedAreRefused)
{
    startServer("subnet", {"route 10.20.0.0 255.255.0.0", "route 10.22.0.0 255.255.0.0 198.51.100.77"});
    start();
    expectRefused(
        "openvpn-hook: route_gateway_2: 198.51.100.77 is no other address of the tunnel's network 10.8.0.0/24, "
        "and not net_gateway; nothing was changed\n");
}

TEST_F(OpenVpnTest, DomainsThatAreNoneAreRefused)
{
    startServer("subnet", {"dhcp-option DNS 10.8.0.1", "dhcp-option DOMAIN $(reboot)"});
    start();
    expectRefused("openvpn-hook: foreign_option_");
    EXPECT_THAT(contentOf(clientLog), HasSubstr("is no domain name; nothing was changed\n"));
}

TEST_F(OpenVpnTest, WithRouteNoexecTheTrafficMustBeNamed)
{
    startServer("subnet", {"redirect-gateway def1"});
    start({"--route-noexec"});
    expectRefused("openvpn-hook: ends OpenVPN: the tunnel is not configured\n");
    EXPECT_THAT(contentOf(clientLog), HasSubstr("openvpn-hook: redirect_gateway: missing: with 'route-noexec'"));
    connect({"--route-noexec", "--up", std::string(hook) + " --traffic all", "--route-up",
             std::string(hook) + " --traffic all"});
    EXPECT_THAT(shell("ip route get 198.51.100.80"), HasSubstr("dev norvatun0"));
    disconnect();
}

TEST_F(OpenVpnTest, ASecondOneIsRefused)
{
    startServer("subnet", splitPushes, false);
    connect();
    const std::string connected = state();
    shell("sed 's/client.log/second.log/' /tmp/client.conf >/tmp/second.conf");
    const CommandResult second = runCommand({"openvpn", "--config", "/tmp/second.conf"});
    EXPECT_NE(0, second.status);
    EXPECT_THAT(contentOf("/tmp/second.log"), HasSubstr("Cannot ioctl TUNSETIFF norvatun0: Device or resource busy"));
    EXPECT_EQ(connected, state());
    EXPECT_TRUE(isReached("10.20.0.80"));
    disconnect();
}

}  // namespace openvpntest
