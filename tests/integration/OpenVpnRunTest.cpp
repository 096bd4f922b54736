// SPDX-License-Identifier: Apache-2.0
//
// OpenVPN started by 'vpnoalctl run': openvpn-hook hands the configuration to that program, which owns it.
#include <sys/un.h>

#include "OpenVpnFixture.h"

namespace openvpntest {

using testing::HasSubstr;

class OpenVpnRunTest : public OpenVpnFixture {
protected:
    /// Pings that were lost of 250, one each 10 ms, while `roam` happens.
    static int lostWhile(const std::string& roam)
    {
        const std::string output =
            shell("ping -n -q -i 0.01 -c 250 -W 1 10.20.0.80 & pinging=$!; sleep 0.5; " + roam + "; wait $pinging");
        const std::size_t at = output.find(" packets transmitted, ") + 22;
        return 250 - std::stoi(output.substr(at));
    }
};

TEST_F(OpenVpnRunTest, RoamingLosesNothingBesideTheTunnel)
{
    startServer("subnet", {"redirect-gateway def1"});
    expectTheControlToSeePackets();
    const int control = arrived("beside");
    connectInAgent();
    const int before = arrived("beside");
    const SteadySender sender(behindServer);
    const int toCellular = lostWhile("ip link set eth0 down");
    EXPECT_THAT(shell("ip route get 198.51.100.2"), HasSubstr("dev wwan0"));
    const int toWifi = lostWhile(
        "ip link set eth0 up; ip -6 address flush dev eth0; ip route add default via 192.0.2.1 dev eth0 metric 100");
    EXPECT_TRUE(comesTrue([] { return shell("ip route get 198.51.100.2").find("dev eth0") != std::string::npos; }));
    // OpenVPN by itself loses all that come after the change.
    EXPECT_LT(toCellular, 100);
    EXPECT_LT(toWifi, 100);
    EXPECT_EQ(before, arrived("beside"));
    std::printf("lost of 250 pings: %d to wwan0, %d to eth0; beside the tunnel: %d of %d; the control saw %d\n",
                toCellular, toWifi, arrived("beside") - before, sender.sent(), control);
    EXPECT_EQ(1u, timesConnected());
    disconnect();
}

// OpenVPN runs --up before it knows whether all traffic goes into the tunnel, and --route-up two seconds later.
TEST_F(OpenVpnRunTest, ReadyIsReportedWhenTheConfigurationIsComplete)
{
    startServer("subnet", {"redirect-gateway def1", "route 10.21.0.0 255.255.0.0"});
    const UniqueFd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string("/tmp/notify").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(0, bind(manager.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    const timeval limit{20, 0};
    setsockopt(manager.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    unlink(clientLog);
    mHasHook = false;  // the unit brings it
    clientWords();
    setenv("NOTIFY_SOCKET", "/tmp/notify", 1);
    mClient = ChildProcess(unitsCommand({"--route-delay", "2"}));
    unsetenv("NOTIFY_SOCKET");
    char text[100];
    const ssize_t size = recv(manager.get(), text, sizeof text, 0);
    EXPECT_EQ("READY=1", std::string(text, size > 0 ? static_cast<std::size_t>(size) : 0));
    EXPECT_THAT(routes(), HasSubstr("0.0.0.0/1 dev norvatun0 proto 119"));
    EXPECT_THAT(routes(), HasSubstr("10.21.0.0/16 via 10.8.0.1 dev norvatun0 proto 119"));
    EXPECT_THAT(shell("nft list tables"), HasSubstr("vknetconfig-guard-norvatun0"));
    EXPECT_TRUE(comesTrue([] { return timesConnected() != 0; }));
    disconnect();
    unlink("/tmp/notify");
}

// What the test above would see without the agent. The server's keepalive makes OpenVPN connect anew after 8 seconds
// without an answer; 60 are usual. With persist-tun its packets to the server go into the tunnel then.
TEST_F(OpenVpnRunTest, OpenVpnByItselfStandsStillUntilItConnectsAnew)
{
    mHasHook = false;
    const auto isBack = [] {
        return runCommand({"ping", "-n", "-q", "-c", "1", "-W", "0.2", "-I", "norvatun0", "10.20.0.80"}).status == 0;
    };
    for (const bool persists : {false, true}) {
        mPersistsTun = persists;
        startServer("subnet", {"redirect-gateway def1"});
        connect();
        ASSERT_TRUE(isReached("10.20.0.80"));
        const auto begin = std::chrono::steady_clock::now();
        shell("ip link set eth0 down");
        const auto atMost = persists ? std::chrono::seconds(20) : testsupport::longestWait;
        EXPECT_EQ(!persists, comesTrue(isBack, atMost)) << contentOf(clientLog);
        const auto taken =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin).count();
        std::printf("%s persist-tun: outage of %ld ms%s\n", persists ? "with" : "without", static_cast<long>(taken),
                    persists ? " and longer" : "");
        EXPECT_LE(8000, taken);
        disconnect();
        shell(
            "ip link set eth0 up; ip -6 address flush dev eth0; ip route add default via 192.0.2.1 dev eth0 metric "
            "100");
    }
}

TEST_F(OpenVpnRunTest, AKilledOpenVpnEndsTheAgentWhichRestores)
{
    startServer("subnet", {"redirect-gateway def1"});
    connectInAgent();
    kill(openVpn(), SIGKILL);
    EXPECT_EQ(128 + SIGKILL, mClient.wait());
    shell("ip route delete 198.51.100.2 via 192.0.2.1 proto boot");  // OpenVPN's own
    EXPECT_EQ(mBefore, state());
}

// The agent has its own route to the server, so OpenVPN needs none.
TEST_F(OpenVpnRunTest, WithoutRoutesOfItsOwnAKilledOpenVpnLeavesNothing)
{
    startServer("subnet", {"redirect-gateway def1"});
    const std::string all = std::string(hook) + " --traffic all";
    connectInAgent({"--route-noexec", "--up", all, "--route-up", all});
    EXPECT_THAT(shell("ip route get 198.51.100.80"), HasSubstr("dev norvatun0"));
    EXPECT_THAT(shell("ip route get 198.51.100.2"), HasSubstr("dev eth0"));
    kill(openVpn(), SIGKILL);
    EXPECT_EQ(128 + SIGKILL, mClient.wait());
    EXPECT_EQ(mBefore, state());
}

// A connection of TCP is bound to an address, which is gone. OpenVPN would notice after ten minutes, as the server's
// "keepalive" says.
TEST_F(OpenVpnRunTest, OverTcpTheSignalHasItConnectAgain)
{
    mServerOptions = {"--proto", "tcp-server", "--keepalive", "1", "600"};
    startServer("subnet", {"redirect-gateway def1"});
    expectTheControlToSeePackets();
    connectInAgent({"--proto", "tcp-client"}, {"--on-change", "SIGUSR1"});
    const int before = arrived("beside");
    const SteadySender sender(behindServer);
    shell("ip link set eth0 down");
    awaitConnections(2);
    const int through = arrived("through");
    EXPECT_TRUE(comesTrue([through] { return arrived("through") > through + 20; })) << contentOf(clientLog);
    EXPECT_EQ(before, arrived("beside"));
    disconnect();
    shell("ip link set eth0 up; ip -6 address flush dev eth0; ip route add default via 192.0.2.1 dev eth0 metric 100");
}

}  // namespace openvpntest
