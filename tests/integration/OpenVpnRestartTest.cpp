// SPDX-License-Identifier: Apache-2.0
//
// OpenVPN starts again, is killed, or its hook is: nothing leaves beside the tunnel, and nothing stays for good.
#include <sys/wait.h>

#include "OpenVpnFixture.h"

namespace openvpntest {

using testing::HasSubstr;

class OpenVpnRestartTest : public OpenVpnFixture {
protected:
    void expectNothingBeside(const std::function<void()>& disturb) { EXPECT_EQ(0, packetsBeside(disturb)); }
    /// Packets beside the tunnel while `disturb` runs, until traffic goes through the tunnel again.
    int packetsBeside(const std::function<void()>& disturb)
    {
        expectTheControlToSeePackets();
        const int control = arrived("beside");
        connect();
        EXPECT_TRUE(isReached("10.20.0.80"));
        const int before = arrived("beside");
        const SteadySender sender(behindServer);
        EXPECT_TRUE(comesTrue([] { return arrived("through") > 20; }));
        disturb();
        const int through = arrived("through");
        EXPECT_TRUE(comesTrue([through] { return arrived("through") > through + 20; })) << contentOf(clientLog);
        const int beside = arrived("beside") - before;
        std::printf("packets beside the tunnel: %d of %d; the control saw %d\n", beside, sender.sent(), control);
        return beside;
    }
    static void makeStrict() { shell("mkdir -p /etc/vpnwfoal; echo 'strict = on' >/etc/vpnwfoal/platform.conf"); }
    void TearDown() override
    {
        shell("rm -rf /etc/vpnwfoal");
        OpenVpnFixture::TearDown();
    }
    static std::string restore() { return shell(std::string(program) + " restore"); }

    static const Words allTraffic;
};

const Words OpenVpnRestartTest::allTraffic{"redirect-gateway def1"};

TEST_F(OpenVpnRestartTest, Sigusr1KeepsTheConfiguration)
{
    startServer("subnet", allTraffic);
    expectNothingBeside([this] {
        mClient.sendSignal(SIGUSR1);
        awaitConnections(2);
    });
    EXPECT_THAT(contentOf(clientLog), HasSubstr("openvpn-hook: OpenVPN starts again, the configuration stays\n"));
    disconnect();
}

TEST_F(OpenVpnRestartTest, AServerThatStartsAgainIsNoGap)
{
    startServer("subnet", allTraffic);
    expectNothingBeside([this] {
        mServer.stop();
        startServer("subnet", allTraffic);
        awaitConnections(2);
    });
    disconnect();
}

// The device goes and comes, and its routes with it. The guard's strict mode holds the packets back meanwhile.
TEST_F(OpenVpnRestartTest, SighupIsNoGapInStrictMode)
{
    makeStrict();
    startServer("subnet", allTraffic);
    expectNothingBeside([this] {
        const auto connections = [] { return countIn(contentOf(serverLog), "Peer Connection Initiated with"); };
        const std::size_t earlier = connections();
        mClient.sendSignal(SIGHUP);
        EXPECT_TRUE(comesTrue([&] { return connections() > earlier; }));
    });
    disconnect();
}

// The server takes the second connection for another client, so the tunnel gets another address and a new device.
TEST_F(OpenVpnRestartTest, AnotherAddressIsNoGapInStrictMode)
{
    makeStrict();
    startServer("subnet", allTraffic, false);
    expectNothingBeside([this] {
        mClient.sendSignal(SIGUSR1);
        awaitConnections(2);
    });
    EXPECT_THAT(contentOf(clientLog), HasSubstr("10.8.0.3"));
    disconnect();
}

// What the tests above would see without the hook.
TEST_F(OpenVpnRestartTest, OpenVpnByItselfHasAGap)
{
    mHasHook = false;
    startServer("subnet", allTraffic, false);
    EXPECT_LT(0, packetsBeside([this] {
                  mClient.sendSignal(SIGUSR1);
                  awaitConnections(2);
              }));
    disconnect();
}

TEST_F(OpenVpnRestartTest, OpenVpnByItselfHasNoGapWhenTheDeviceStays)
{
    mHasHook = false;
    startServer("subnet", allTraffic);
    expectNothingBeside([this] {
        mClient.sendSignal(SIGUSR1);
        awaitConnections(2);
    });
    disconnect();
}

TEST_F(OpenVpnRestartTest, OpenVpnByItselfLeavesItsRouteWhenItIsKilled)
{
    mHasHook = false;
    startServer("subnet", allTraffic);
    connect();
    mClient.sendSignal(SIGKILL);
    mClient.wait();
    EXPECT_THAT(routes(), HasSubstr("198.51.100.2 via 192.0.2.1 dev eth0"));
    shell("ip route delete 198.51.100.2 via 192.0.2.1 proto boot");
}

// OpenVPN's own route to the server outlives it; everything else is gone.
TEST_F(OpenVpnRestartTest, AKilledOpenVpnIsCleanedUpAfter)
{
    startServer("subnet", allTraffic);
    connect();
    mClient.sendSignal(SIGKILL);
    mClient.wait();
    EXPECT_NE(mBefore, state());
    restore();
    shell("ip route delete 198.51.100.2 via 192.0.2.1 proto boot");
    EXPECT_EQ(mBefore, state());
}

TEST_F(OpenVpnRestartTest, AKilledOpenVpnIsReplacedByTheNext)
{
    startServer("subnet", allTraffic);
    connect();
    mClient.sendSignal(SIGKILL);
    mClient.wait();
    connect();
    EXPECT_THAT(shell("ip route get 198.51.100.80"), HasSubstr("dev norvatun0"));
    EXPECT_TRUE(isReached("10.20.0.80"));
    disconnect();
    shell("ip route delete 198.51.100.2 via 192.0.2.1 proto boot || true");
}

// The program by itself, on a device that is there, killed later and later until it ends by itself.
TEST_F(OpenVpnRestartTest, AHookThatIsKilledAtAnyTimeIsCleanedUpAfter)
{
    shell(
        "ip tuntap add mode tun norvatun0; ip address add 10.8.0.2/24 dev norvatun0; ip link set norvatun0 up;"
        "ip -6 address flush dev norvatun0");
    const std::string before = state();
    int killed = 0;
    for (int milliseconds = 0;; ++milliseconds) {
        ChildProcess process({"env", "-i", "PATH=" + std::string(getenv("PATH")), "VKLOG_TARGET=stderr",
                              "dev=norvatun0", "script_type=route-up", "script_context=init", "ifconfig_local=10.8.0.2",
                              "ifconfig_netmask=255.255.255.0", "redirect_gateway=1", "route_network_1=10.20.0.0",
                              "route_netmask_1=255.255.0.0", "route_net_gateway=192.0.2.1", hook});
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        process.sendSignal(SIGKILL);
        const int status = process.wait();
        restore();
        ASSERT_EQ(before, state()) << "killed after " << milliseconds << " ms";
        if (status == 0) break;
        ++killed;
        ASSERT_LT(milliseconds, 2000);
    }
    EXPECT_GT(killed, 3);
    std::printf("killed %d times\n", killed);
    shell("ip link delete norvatun0");
}

}  // namespace openvpntest
