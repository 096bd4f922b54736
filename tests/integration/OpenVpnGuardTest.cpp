// SPDX-License-Identifier: Apache-2.0
//
// What leaves beside OpenVPN's tunnel when it takes all traffic: nothing, over neither access network and of neither
// family, whatever ends, starts or moves. Each test first sees all four kinds of packets without the tunnel.
#include "AccessTraffic.h"
#include "Daemons.h"
#include "OpenVpnFixture.h"

namespace openvpntest {

using testsupport::AccessTraffic;
using testsupport::Beside;
using testsupport::Daemon;

const Words bothFamilies{"wifi4", "cellular4", "wifi6", "cellular6"};
const Words ipv6Only{"wifi6", "cellular6"};

class OpenVpnGuardTest : public OpenVpnFixture {
protected:
    void SetUp() override
    {
        OpenVpnFixture::SetUp();
        if (IsSkipped()) return;
        mTraffic = std::make_unique<AccessTraffic>("vpn", "10.20.0.80");
        expectTheControl();
        shell("ip route add default via 203.0.113.1 dev wwan0 metric 50");
        mTraffic->expectToBeSeen({"cellular4"});
        shell("ip route delete default dev wwan0 metric 50");
        startServer("subnet", {"redirect-gateway def1"});
    }
    void TearDown() override
    {
        if (!IsSkipped()) {
            mClient.stop();
            shell("ip route delete 198.51.100.2 via 192.0.2.1 proto boot 2>/dev/null || true");  // OpenVPN's own
            shell("ip link delete norvatun0 2>/dev/null || true");
            expectTheControl();
        }
        mTraffic.reset();
        OpenVpnFixture::TearDown();
    }

    void expectTheControl() const { mTraffic->expectToBeSeen({"wifi4", "wifi6", "cellular6"}); }

    // It keeps the tunnel's routes when OpenVPN is killed.
    static void makeLastingDevice() { shell("openvpn --mktun --dev norvatun0 --dev-type tun"); }

    void killOpenVpnOfTheAgent()
    {
        kill(openVpn(), SIGKILL);
        EXPECT_EQ(128 + SIGKILL, mClient.wait());
    }

    static void ethernetBack()
    {
        shell(
            "ip link set eth0 up; ip -6 address flush dev eth0; ip route add default via 192.0.2.1 dev eth0 metric "
            "100");
        AccessTraffic::addIpv6("eth0");
    }

    static bool outerRouteIsBy(const char* device)
    {
        const std::string expected = std::string("dev ") + device;
        return comesTrue([&] { return shell("ip route get 198.51.100.2").find(expected) != std::string::npos; });
    }

    std::unique_ptr<AccessTraffic> mTraffic;
};

TEST_F(OpenVpnGuardTest, AKilledAgentAndItsOpenVpnAndTheNextAgent)
{
    makeLastingDevice();
    connectInAgent();
    const Beside beside(*mTraffic, bothFamilies);
    const pid_t carrier = openVpn();
    mClient.sendSignal(SIGKILL);
    mClient.wait();
    mTraffic->awaitMore();
    kill(carrier, SIGKILL);
    mTraffic->awaitMore();
    connectInAgent();
    beside.expectNone();
    disconnect();
}

TEST_F(OpenVpnGuardTest, AKilledOpenVpnAndTheNext)
{
    makeLastingDevice();
    connect();
    const Beside beside(*mTraffic, bothFamilies);
    mClient.sendSignal(SIGKILL);
    mClient.wait();
    mTraffic->awaitMore();
    connect();
    beside.expectNone();
    disconnect();
}

// IPv4 goes beside then, unless the guard is strict.
TEST_F(OpenVpnGuardTest, AKilledOpenVpnWhoseDeviceIsGoneAndTheNext)
{
    connect();
    const Beside beside(*mTraffic, ipv6Only);
    mClient.sendSignal(SIGKILL);
    mClient.wait();
    EXPECT_EQ("", shell("ip -br link show type tun"));
    mTraffic->awaitMore();
    connect();
    beside.expectNone();
    disconnect();
}

TEST_F(OpenVpnGuardTest, AKilledAgentAndItsOpenVpnAndTheNextAgentInStrictMode)
{
    shell("mkdir -p /etc/vpnwfoal; echo 'strict = on' >/etc/vpnwfoal/platform.conf");
    connectInAgent();
    const Beside beside(*mTraffic, bothFamilies);
    const pid_t carrier = openVpn();
    mClient.sendSignal(SIGKILL);
    mClient.wait();
    kill(carrier, SIGKILL);
    mTraffic->awaitMore();
    connectInAgent();
    beside.expectNone();
    disconnect();
    shell("rm /etc/vpnwfoal/platform.conf");
}

TEST_F(OpenVpnGuardTest, AKilledOpenVpnAndTheNextAgentInStrictMode)
{
    shell("mkdir -p /etc/vpnwfoal; echo 'strict = on' >/etc/vpnwfoal/platform.conf");
    connectInAgent();
    const Beside beside(*mTraffic, bothFamilies);
    killOpenVpnOfTheAgent();
    mTraffic->awaitMore();
    connectInAgent();
    beside.expectNone();
    disconnect();
    shell("rm /etc/vpnwfoal/platform.conf");
}

// The hook refuses what the server pushes then, and ends OpenVPN, which ends without a failure.
TEST_F(OpenVpnGuardTest, AConnectionAnewThatTheHookRefusesInStrictMode)
{
    shell("mkdir -p /etc/vpnwfoal; echo 'strict = on' >/etc/vpnwfoal/platform.conf");
    connectInAgent();
    const Beside beside(*mTraffic, bothFamilies);
    mServer.stop();
    startServer("subnet", {"redirect-gateway"});
    mClient.sendSignal(SIGUSR1);
    EXPECT_EQ(1, mClient.wait());
    EXPECT_THAT(contentOf(clientLog), testing::HasSubstr("openvpn-hook: ends OpenVPN: the tunnel is not configured\n"));
    mTraffic->awaitMore();
    // OpenVPN has set the default route anew, without its metric.
    shell("ip route delete default via 192.0.2.1 dev eth0; ip route add default via 192.0.2.1 dev eth0 metric 100");
    mServer.stop();
    startServer("subnet", {"redirect-gateway def1"});
    connectInAgent();
    beside.expectNone();
    disconnect();
    shell("rm /etc/vpnwfoal/platform.conf");
}

// The agent has restored, and there is no guard until the next one has its own.
TEST_F(OpenVpnGuardTest, AKilledOpenVpnWithoutStrictModeAndTheNextAgent)
{
    connectInAgent();
    killOpenVpnOfTheAgent();
    mTraffic->expectToBeSeen({"wifi4", "wifi6", "cellular6"});
    connectInAgent();
    disconnect();
}

TEST_F(OpenVpnGuardTest, ConfigurationsAppliedAgain)
{
    connectInAgent();
    const Beside beside(*mTraffic, bothFamilies);
    for (std::size_t connections = 2; connections <= 4; ++connections) {
        mClient.sendSignal(SIGUSR1);
        awaitConnections(connections);
    }
    beside.expectNone();
    disconnect();
}

TEST_F(OpenVpnGuardTest, FromWifiToCellularAndBack)
{
    connectInAgent();
    const Beside beside(*mTraffic, bothFamilies);
    for (int i = 0; i < 3; ++i) {
        shell("ip link set eth0 down");
        EXPECT_TRUE(outerRouteIsBy("wwan0"));
        ethernetBack();
        EXPECT_TRUE(outerRouteIsBy("eth0"));
        mTraffic->awaitMore();
    }
    beside.expectNone();
    EXPECT_EQ(1u, timesConnected());
    disconnect();
}

// The links go down while the device sleeps, and get their addresses again when it wakes.
TEST_F(OpenVpnGuardTest, SuspendAndResume)
{
    if (const std::string reason = testsupport::daemonUnavailable(Daemon::elogind); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const std::string manager =
        "busctl --system call org.freedesktop.login1 /org/freedesktop/login1 org.freedesktop.login1.Manager ";
    const ChildProcess bus = testsupport::startBus();
    const ChildProcess elogind = testsupport::startDaemon(Daemon::elogind);
    std::ofstream("/tmp/on-change") << "echo $WFOAL_EVENT >>/tmp/events\n"
                                       "test $WFOAL_EVENT = suspended && ip link set eth0 down\ntrue\n";
    unlink("/tmp/events");
    connectInAgent({}, {"--on-change-exec", "sh /tmp/on-change"});
    ASSERT_TRUE(comesTrue(
        [&manager] { return shell(manager + "ListInhibitors").find("norva-vpnagentd") != std::string::npos; }));
    const Beside beside(*mTraffic, bothFamilies);
    const auto hasHappened = [](const char* event) {
        return comesTrue([event] { return contentOf("/tmp/events").find(event) != std::string::npos; });
    };
    shell(manager + "Suspend b false");
    EXPECT_TRUE(hasHappened("suspended"));
    EXPECT_TRUE(hasHappened("resumed"));
    EXPECT_TRUE(outerRouteIsBy("wwan0"));
    ethernetBack();
    EXPECT_TRUE(outerRouteIsBy("eth0"));
    beside.expectNone();
    EXPECT_TRUE(isReached("10.20.0.80"));
    disconnect();
}

TEST_F(OpenVpnGuardTest, AccessNetworksThatGetIpv6Later)
{
    AccessTraffic::removeIpv6("eth0");
    AccessTraffic::removeIpv6("wwan0");
    connectInAgent();
    const Beside beside(*mTraffic, bothFamilies);
    AccessTraffic::addIpv6("wwan0");
    AccessTraffic::addIpv6("eth0");
    beside.expectNone();
    disconnect();
}

}  // namespace openvpntest
