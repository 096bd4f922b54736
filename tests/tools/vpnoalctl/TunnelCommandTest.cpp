// SPDX-License-Identifier: Apache-2.0
//
// connect as a user runs it: what it asks of the platform in which order, whatever interrupts it.
#include <poll.h>
#include <csignal>

#include "AddressForm.h"
#include "CommandFixture.h"

using namespace vpnoalctltest;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

TEST_F(TunnelCommandTest, ConnectMakesTheDeviceAppliesHoldsAndRestores)
{
    ChildProcess connecting = startConnecting();
    ASSERT_TRUE(isConnected()) << contentOf("/tmp/output");
    EXPECT_THAT(recordedCalls(), ElementsAre("no-filter", "filter", "add"));
    EXPECT_THAT(contentOf(calls),
                HasSubstr(testsupport::onThisMachine(R"("ip": "0x0200080a", "netmask": "0x00ffffff")")));
    EXPECT_THAT(links(), HasSubstr("10.8.0.2 peer 10.8.0.1/24"));
    EXPECT_THAT(runCommand({"ip", "link", "show", "norvatun0"}).output, HasSubstr("mtu 1280"));
    EXPECT_TRUE(connecting.running());
    connecting.sendSignal(SIGINT);
    EXPECT_EQ(0, connecting.wait());
    EXPECT_THAT(recordedCalls(), ElementsAre("no-filter", "filter", "add", "delete", "no-filter"));
    expectRestored();
}

TEST_F(TunnelCommandTest, EachEndingSignalRestores)
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        ChildProcess connecting = startConnecting();
        ASSERT_TRUE(isConnected());
        connecting.sendSignal(signal);
        EXPECT_EQ(0, connecting.wait()) << signal;
        expectRestored();
    }
}

TEST_F(TunnelCommandTest, InterruptionDuringConnectRestores)
{
    setenv("NETCONFIG_DELAY", "500", 1);
    ChildProcess connecting = startConnecting();
    ASSERT_TRUE(comesTrue([] { return recordedCalls().size() == 3; }));
    connecting.sendSignal(SIGINT);
    EXPECT_EQ(0, connecting.wait());
    expectRestored();
}

TEST_F(TunnelCommandTest, ReaderOfTheOutputMayLeave)
{
    const CommandResult result = runCommand(
        {"sh", "-c",
         std::string(program) + " connect " + profile + " --exec 'sleep 0.2; exit 5' | head -c 1 >/dev/null"});
    EXPECT_EQ(0, result.status);
    EXPECT_TRUE(comesTrue([] { return recordedCalls().size() == 5; }));
    expectRestored();
}

TEST_F(TunnelCommandTest, RefusedConfigurationLeavesNothing)
{
    setenv("NETCONFIG_RESULT", "-1", 1);
    const CommandResult result = run({"connect", profile});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output,
                HasSubstr("vpnoalctl: apply: the platform refused the configuration, everything is restored; "));
    expectRestored();
}

TEST_F(TunnelCommandTest, FilterThatWasRefusedInSilenceLeavesNothing)
{
    setenv("NETCONFIG_NO_FILTER", "1", 1);
    const CommandResult result = run({"connect", profile});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("did not install the packet filter, everything is restored; "));
    expectRestored();
}

TEST_F(TunnelCommandTest, DeviceThatIsRemovedMeanwhileEndsIt)
{
    ChildProcess connecting = startConnecting();
    ASSERT_TRUE(isConnected());
    ASSERT_EQ(0, runCommand({"ip", "link", "delete", "norvatun0"}).status);
    EXPECT_EQ(1, connecting.wait());
    EXPECT_THAT(contentOf("/tmp/output"),
                HasSubstr("norvatun0: somebody removed the interface, everything is restored"));
    expectRestored();
}

TEST_F(TunnelCommandTest, SecondTunnelIsRefusedAndTheFirstOneStays)
{
    ChildProcess connecting = startConnecting();
    ASSERT_TRUE(isConnected());
    const CommandResult second = run({"connect", profile});
    EXPECT_EQ(1, second.status);
    EXPECT_THAT(second.output, StartsWith("vpnoalctl: norvatun0: exists already; "));
    EXPECT_THAT(recordedCalls(), ElementsAre("no-filter", "filter", "add"));
    EXPECT_TRUE(connecting.running());
}

TEST_F(TunnelCommandTest, CommandRunsWhileConnectedAndItsStatusIsKept)
{
    const CommandResult result =
        run({"connect", profile, "--json", "--exec", "ip -br address show norvatun0; cat /tmp/calls | wc -l; exit 7"});
    EXPECT_EQ(7, result.status);
    EXPECT_THAT(result.output,
                HasSubstr("{\"state\":\"connected\",\"interface\":\"norvatun0\",\"address\":\"10.8.0.2/24\""));
    EXPECT_THAT(result.output, HasSubstr("10.8.0.2 peer 10.8.0.1/24"));
    EXPECT_THAT(result.output, EndsWith("3\n"));
    expectRestored();
}

TEST_F(TunnelCommandTest, CommandFindsTheTunnelsDescriptor)
{
    // Nothing stays in the background: a process that holds the descriptor keeps the device.
    const CommandResult result = run({"connect", profile, "--exec", "ls -l /proc/self/fd/$WFOAL_TUN_FD"});
    EXPECT_EQ(0, result.status);
    EXPECT_THAT(result.output, HasSubstr("/dev/net/tun"));
}

TEST_F(TunnelCommandTest, InterruptedCommandIsEndedFirst)
{
    const UniqueFd target(open("/tmp/output", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    ChildProcess connecting({program, "connect", profile, "--exec", "echo started; exec sleep 100"}, target.get());
    ASSERT_TRUE(comesTrue([] { return contentOf("/tmp/output").find("started") != std::string::npos; }));
    connecting.sendSignal(SIGTERM);
    EXPECT_EQ(128 + SIGTERM, connecting.wait());
    expectRestored();
}

}  // namespace
