// SPDX-License-Identifier: Apache-2.0
//
// apply as a user runs it, on a device that somebody else made.
#include <csignal>

#include "CommandFixture.h"

using namespace vpnoalctltest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

// Gives the test a device as an agent would make one.
class ApplyCommandTest : public TunnelCommandTest {
protected:
    void SetUp() override
    {
        TunnelCommandTest::SetUp();
        if (IsSkipped()) return;
        runCommand({"ip", "link", "delete", "norvatun0"});
        runCommand({"ip", "tuntap", "add", "mode", "tun", "norvatun0"});
        runCommand({"ip", "address", "add", "10.8.0.2", "peer", "10.8.0.1/24", "dev", "norvatun0"});
        runCommand({"ip", "link", "set", "norvatun0", "up"});
    }
};

TEST_F(ApplyCommandTest, ConfigurationStaysWhenTheProgramEnds)
{
    const CommandResult result = run({"apply", profile});
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_THAT(recordedCalls(), ElementsAre("no-filter", "filter", "add"));
    EXPECT_THAT(runCommand({"nft", "list", "tables"}).output, HasSubstr("vpn.vpnoal"));
}

TEST_F(ApplyCommandTest, SummaryTellsTheDevicesMtuAndNotTheProfiles)
{
    ASSERT_EQ(0, runCommand({"ip", "link", "set", "norvatun0", "mtu", "1420"}).status);
    EXPECT_THAT(run({"apply", profile}).output, HasSubstr("norvatun0, MTU 1420\n"));
    EXPECT_THAT(run({"apply", profile, "--json"}).output, HasSubstr("\"mtu\":1420,"));
}

TEST_F(ApplyCommandTest, DeviceThatCarriesSomethingElseIsLeftAlone)
{
    runCommand({"ip", "address", "flush", "dev", "norvatun0"});
    runCommand({"ip", "address", "add", "10.8.0.5", "peer", "10.8.0.1/24", "dev", "norvatun0"});
    const CommandResult result = run({"apply", profile});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("norvatun0: its address is 10.8.0.5, the profile says 10.8.0.2; "));
    EXPECT_THAT(recordedCalls(), ElementsAre());
}

TEST_F(ApplyCommandTest, DeviceWithAnAddressAndAPrefixOnly)
{
    runCommand({"ip", "address", "flush", "dev", "norvatun0"});
    runCommand({"ip", "address", "add", "10.8.0.2/24", "dev", "norvatun0"});
    writeFile(profile, R"({"tunnel":{"address":"10.8.0.2/24"},"routes":[{"destination":"10.20.0.0/16"}]})");
    const CommandResult result = run({"apply", profile, "--json"});
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_THAT(result.output, HasSubstr(R"("address":"10.8.0.2/24","mtu":1500,)"));
    EXPECT_THAT(result.output, HasSubstr(R"("routes":[{"dst":"10.20.0.0/16","dev":"norvatun0"}])"));
    EXPECT_THAT(contentOf(calls), HasSubstr(R"("netmask": "255.255.0.0", "gateway": "0.0.0.0")"));
}

TEST_F(ApplyCommandTest, ProfileWithoutATunnelTakesTheDevicesOwn)
{
    writeFile(profile, R"({"routes":[{"destination":"10.20.0.0/16"}]})");
    const CommandResult result = run({"apply", profile, "--json"});
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_THAT(result.output, HasSubstr(R"("address":"10.8.0.2/24","peer":"10.8.0.1","mtu":1500,)"));
    EXPECT_THAT(result.output,
                HasSubstr(R"("routes":[{"dst":"10.20.0.0/16","gateway":"10.8.0.1","dev":"norvatun0"}])"));
}

TEST_F(ApplyCommandTest, GatewayOutOfTheDevicesReach)
{
    writeFile(profile, R"({"routes":[{"destination":"10.20.0.0/16","gateway":"10.9.0.1"}]})");
    const CommandResult result = run({"apply", profile});
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.output, StartsWith("vpnoalctl: the profile: routes[0].gateway: 10.9.0.1 cannot be reached "));
    EXPECT_THAT(recordedCalls(), ElementsAre());
}

TEST_F(ApplyCommandTest, DeviceWithoutAnAddressIsLeftAlone)
{
    runCommand({"ip", "address", "flush", "dev", "norvatun0"});
    writeFile(profile, "{}");
    const CommandResult result = run({"apply", profile});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("norvatun0: it has no IPv4 address; give it one: ip address add "));
    EXPECT_THAT(recordedCalls(), ElementsAre());
}

TEST_F(ApplyCommandTest, ConnectNeedsTheTunnelThatApplyDoesNot)
{
    writeFile(profile, "{}");
    const CommandResult result = run({"connect", profile});
    EXPECT_EQ(2, result.status);
    EXPECT_EQ("vpnoalctl: " + std::string(profile) +
                  ": tunnel: missing; the device that is made needs an address; nothing was changed\n",
              result.output);
}

TEST_F(ApplyCommandTest, DeviceThatIsDownIsLeftAlone)
{
    runCommand({"ip", "link", "set", "norvatun0", "down"});
    const CommandResult result = run({"apply", profile});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("norvatun0: is down; set it up: ip link set norvatun0 up"));
    EXPECT_THAT(recordedCalls(), ElementsAre());
}

TEST_F(ApplyCommandTest, RefusedConfigurationIsTakenBack)
{
    setenv("NETCONFIG_RESULT", "-1", 1);
    EXPECT_EQ(1, run({"apply", profile}).status);
    EXPECT_THAT(recordedCalls(), ElementsAre("no-filter", "filter", "add", "delete", "no-filter"));
}

TEST_F(ApplyCommandTest, InterruptionDuringApplyRestores)
{
    setenv("NETCONFIG_DELAY", "500", 1);
    const UniqueFd target(open("/tmp/output", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    ChildProcess applying({program, "apply", profile}, target.get());
    ASSERT_TRUE(comesTrue([] { return recordedCalls().size() == 3; }));
    applying.sendSignal(SIGINT);
    EXPECT_EQ(1, applying.wait());
    EXPECT_THAT(contentOf("/tmp/output"), HasSubstr("vpnoalctl: apply: interrupted, everything is restored; "));
    EXPECT_THAT(recordedCalls(), ElementsAre("no-filter", "filter", "add", "delete", "no-filter"));
}

}  // namespace
