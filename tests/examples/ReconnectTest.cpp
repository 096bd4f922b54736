// SPDX-License-Identifier: Apache-2.0
//
// What the sample client does when the gateway, the network, the configuration or the device's power goes while it is
// connected.
#include <chrono>

#include "ComesTrue.h"
#include "Daemons.h"
#include "SampleConnection.h"

namespace {

using testing::HasSubstr;
using testsupport::ChildProcess;
using testsupport::CommandResult;
using testsupport::Daemon;
using testsupport::LineProcess;
using testsupport::makeIdentity;
using testsupport::shell;

class ReconnectTest : public testsupport::SampleConnection {};

TEST_F(ReconnectTest, GatewayThatTurnsBadWhileConnectedEndsTheConnection)
{
    startGoodGateway();
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    mGateway->end(SIGKILL);
    startGateway(makeIdentity({"vpn.example", 2, false, "serverAuth", -7200, -3600}, &mServerCa));
    EXPECT_EQ(5, agent.wait()) << agent.output;
}

TEST_F(ReconnectTest, GatewayThatIsGoneIsTriedAgainAndTheConfigurationStays)
{
    startGoodGateway();
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    const std::string configured = shell("ip route; nft list ruleset");
    mGateway->end(SIGKILL);
    ASSERT_TRUE(agent.awaitEvent("lost")) << agent.output;
    ASSERT_TRUE(agent.awaitEvent("waiting")) << agent.output;
    EXPECT_EQ(configured, shell("ip route; nft list ruleset"));
    startGoodGateway();
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    expectPing();
    EXPECT_EQ(0, agent.end());
}

TEST_F(ReconnectTest, GatewayThatStaysGoneIsGivenUp)
{
    startGoodGateway();
    LineProcess agent(command({"--give-up", "1"}));
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    mGateway->end(SIGKILL);
    EXPECT_EQ(1, agent.wait());
    EXPECT_THAT(agent.output, HasSubstr("sampleclient: gateway: lost for 1 seconds, everything is restored; "));
    EXPECT_THAT(agent.output, HasSubstr("\"event\":\"restored\""));
}

TEST_F(ReconnectTest, DeviceThatIsRemovedMeanwhileLeavesNothing)
{
    startGoodGateway();
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    shell("ip link del norvatun0");
    EXPECT_EQ(1, agent.wait());
    EXPECT_THAT(agent.output,
                HasSubstr("sampleclient: norvatun0: somebody removed the interface, everything is restored"));
}

TEST_F(ReconnectTest, ConfigurationThatIsTakenByForceEndsTheConnection)
{
    startGoodGateway();
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    shell(WFOAL_BUILD_DIR "/bin/vpnoalctl restore --force");
    EXPECT_EQ(1, agent.wait());
    EXPECT_THAT(
        agent.output,
        HasSubstr("sampleclient: norvatun0: another process removed the tunnel's configuration; the log names it"));
}

TEST_F(ReconnectTest, SecondConnectLeavesTheFirstAlone)
{
    startGoodGateway();
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    const std::string configured = state();
    const CommandResult second = run();
    EXPECT_EQ(1, second.status);
    EXPECT_THAT(second.output, HasSubstr("sampleclient: norvatun0: exists already"));
    EXPECT_EQ(configured, state());
    // The gateway let the second client take its place.
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    expectPing();
    EXPECT_EQ(0, agent.end());
}

class ReconnectEventsTest : public testsupport::SampleConnection {
protected:
    void SetUp() override
    {
        SampleConnection::SetUp();
        if (IsSkipped()) return;
        mBus = testsupport::startBus();
        mManager = ChildProcess({WFOAL_BUILD_DIR "/bin/vesk-connectionmanager"});
        testsupport::waitForBusName("com.vesk.connectionmanager", mManager);
        startGoodGateway();
    }

    ChildProcess mBus;
    ChildProcess mManager;
};

TEST_F(ReconnectEventsTest, LostWiFiIsReplacedByCellularAndTakenAgainWhenItIsBack)
{
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    const std::string configured = shell("ip route show dev norvatun0; nft list ruleset");
    shell("ip link set eth0 down");
    ASSERT_TRUE(agent.awaitEvent("network-changed")) << agent.output;
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    EXPECT_THAT(agent.output, HasSubstr("\"reason\":\"the physical network changed\""));
    EXPECT_THAT(outerConnection(), HasSubstr("203.0.113.10%rmnet0:"));
    expectPing();
    wifiOn();
    ASSERT_TRUE(agent.awaitEvent("network-changed")) << agent.output;
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    EXPECT_THAT(outerConnection(), HasSubstr("192.0.2.10%eth0:"));
    expectPing();
    EXPECT_EQ(configured, shell("ip route show dev norvatun0; nft list ruleset"));
    EXPECT_EQ(0, agent.end());
}

TEST_F(ReconnectEventsTest, WithoutAnyNetworkItWaitsForOne)
{
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    shell("ip link set rmnet0 down; ip link set eth0 down");
    ASSERT_TRUE(agent.awaitEvent("waiting")) << agent.output;
    shell(
        "ip link set rmnet0 up; ip -6 address flush dev rmnet0; ip route add default via 203.0.113.1 dev rmnet0 metric "
        "700");
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    EXPECT_THAT(outerConnection(), HasSubstr("203.0.113.10%rmnet0:"));
    EXPECT_EQ(0, agent.end());
    wifiOn();
}

TEST_F(ReconnectEventsTest, SleepClosesTheConnectionAndWakingUpMakesItAgain)
{
    if (const std::string reason = testsupport::daemonUnavailable(Daemon::elogind); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const std::string manager =
        "busctl --system call org.freedesktop.login1 /org/freedesktop/login1 org.freedesktop.login1.Manager ";
    const ChildProcess elogind = testsupport::startDaemon(Daemon::elogind);
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    ASSERT_TRUE(testsupport::comesTrue([&manager] {
        return shell(manager + "ListInhibitors").find("norva-vpnagentd") != std::string::npos;
    })) << "the plug-in holds no inhibitor";
    shell(manager + "Suspend b false");
    ASSERT_TRUE(agent.awaitEvent("suspended")) << agent.output;
    EXPECT_EQ("", outerConnection());
    EXPECT_THAT(shell("ip route"), HasSubstr("dev norvatun0"));
    ASSERT_TRUE(agent.awaitEvent("resumed")) << agent.output;
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    expectPing();
    EXPECT_EQ(0, agent.end());
}

}  // namespace
