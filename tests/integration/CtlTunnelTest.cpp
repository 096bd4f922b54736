// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl with the real platform on a real kernel; ip and nft are the judges.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

#include "ChildProcess.h"
#include "ComesTrue.h"
#include "Files.h"
#include "Isolation.h"
#include "handles/UniqueFd.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using testsupport::ChildProcess;
using testsupport::comesTrue;
using testsupport::CommandResult;
using testsupport::contentOf;
using testsupport::runCommand;

constexpr char program[] = WFOAL_BUILD_DIR "/bin/vpnoalctl";
constexpr char profile[] = "/tmp/profile.json";
constexpr char output[] = "/tmp/output";

constexpr char goodProfile[] = R"({
    "tunnel": { "address": "10.8.0.2/24", "peer": "10.8.0.1", "mtu": 1380 },
    "routes": [
        { "destination": "10.20.0.0/16" },
        { "destination": "172.16.5.0/255.255.255.0", "gateway": "10.8.0.7", "metric": 20 }
    ],
    "filter": [
        { "action": "accept", "direction": "out", "interface": "norvatun0", "protocol": "udp",
          "destination": "10.8.0.1", "destinationPort": 53 },
        { "action": "drop", "direction": "in", "interface": "norvatun0", "protocol": "tcp", "destinationPort": 22 }
    ]
})";

void writeProfile(const std::string& text)
{
    std::ofstream(profile) << text;
}

std::string routes()
{
    return runCommand({"ip", "route", "show", "table", "all"}).output;
}

std::string filter()
{
    return runCommand({"nft", "list", "ruleset"}).output;
}

// All of the network's state that a tunnel can touch.
std::string state()
{
    return runCommand({"ip", "-d", "link"}).output + runCommand({"ip", "address"}).output + routes() +
           runCommand({"ip", "rule"}).output + filter();
}

class CtlTunnelTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (testsupport::isInUserNamespace() && !UniqueFd(open("/dev/net/tun", O_RDWR | O_CLOEXEC)).valid()) {
            GTEST_SKIP() << "/dev/net/tun cannot be opened in a user namespace here";
        }
        // Somebody else's filter and the device's own connection, which must survive everything.
        runCommand({"nft", "add table ip other; add chain ip other keep; add rule ip other keep counter accept"});
        runCommand({"ip", "link", "add", "wlan0", "type", "veth", "peer", "name", "access0"});
        runCommand({"ip", "address", "add", "192.168.7.2/24", "dev", "wlan0"});
        runCommand({"ip", "link", "set", "wlan0", "up"});
        runCommand({"ip", "link", "set", "access0", "up"});
        runCommand({"ip", "route", "add", "default", "via", "192.168.7.1"});
        settle();
        mBefore = state();
    }

    // Nothing is left for the next test of the same run.
    void TearDown() override
    {
        for (const char* name : {"norvatun0", "wlan0"})
            runCommand({"ip", "link", "delete", name});
        runCommand({"nft", "flush", "ruleset"});
        std::filesystem::remove_all("/run/vknetconfig");
    }

    // The kernel finishes IPv6 addresses of new devices in its own time; here none are wanted.
    static void settle()
    {
        for (const char* name : {"wlan0", "access0"})
            runCommand({"ip", "-6", "address", "flush", "dev", name});
    }

    void expectStateAsBefore() const { EXPECT_EQ(mBefore, state()); }

    static CommandResult run(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), program);
        return runCommand(arguments);
    }

    static ChildProcess connect()
    {
        const UniqueFd target(open(output, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        ChildProcess connecting({program, "connect", profile}, target.get());
        comesTrue([&connecting] {
            return !connecting.running() || contentOf(output).find("connected") != std::string::npos;
        });
        EXPECT_THAT(contentOf(output), HasSubstr("connected"));
        return connecting;
    }

    // Waits for the end of a program that is to end by now. -1 when it does not.
    static int exitCodeOf(ChildProcess& ending)
    {
        pollfd end{ending.endDescriptor(), POLLIN, 0};
        if (poll(&end, 1, 30000) == 1) return ending.wait();
        ADD_FAILURE() << "still runs: " << contentOf(output);
        ending.stop();
        return -1;
    }

    static void makeDevice()
    {
        runCommand({"ip", "tuntap", "add", "mode", "tun", "norvatun0"});
        runCommand({"ip", "address", "add", "10.8.0.2", "peer", "10.8.0.1/24", "dev", "norvatun0"});
        runCommand({"ip", "link", "set", "norvatun0", "up"});
        runCommand({"ip", "-6", "address", "flush", "dev", "norvatun0"});
    }

    static void expectInForce()
    {
        EXPECT_THAT(routes(), HasSubstr("10.20.0.0/16 via 10.8.0.1 dev norvatun0"));
        EXPECT_THAT(routes(), HasSubstr("172.16.5.0/24 via 10.8.0.7 dev norvatun0"));
        EXPECT_THAT(filter(), HasSubstr("table inet vpn.vpnoal"));
        EXPECT_THAT(filter(), HasSubstr("oifname \"norvatun0\" ip daddr 10.8.0.1 udp dport 53 accept"));
        EXPECT_THAT(filter(), HasSubstr("iifname \"norvatun0\" tcp dport 22 drop"));
    }

    std::string mBefore;
};

TEST_F(CtlTunnelTest, ConnectPutsEverythingInForceAndTakesEverythingBack)
{
    writeProfile(goodProfile);
    ChildProcess connecting = connect();
    expectInForce();
    EXPECT_THAT(runCommand({"ip", "address", "show", "norvatun0"}).output, HasSubstr("inet 10.8.0.2 peer 10.8.0.1/24"));
    connecting.sendSignal(SIGINT);
    EXPECT_EQ(0, exitCodeOf(connecting));
    expectStateAsBefore();
}

TEST_F(CtlTunnelTest, DefaultRouteLeavesTheDevicesOwnDefaultRoute)
{
    writeProfile(R"({"tunnel":{"address":"10.8.0.2/24","peer":"10.8.0.1"},"routes":[{"destination":"default"}]})");
    ChildProcess connecting = connect();
    EXPECT_THAT(routes(), HasSubstr("default via 192.168.7.1 dev wlan0"));
    EXPECT_THAT(runCommand({"ip", "route", "get", "198.51.100.1"}).output, HasSubstr("dev norvatun0"));
    connecting.sendSignal(SIGTERM);
    EXPECT_EQ(0, exitCodeOf(connecting));
    expectStateAsBefore();
}

TEST_F(CtlTunnelTest, ApplyStaysInForceUntilRestore)
{
    makeDevice();
    const std::string before = state();
    writeProfile(goodProfile);
    const CommandResult applied = run({"apply", profile});
    EXPECT_EQ(0, applied.status) << applied.output;
    expectInForce();
    // Looking at the plug-in takes nothing back.
    EXPECT_EQ(0, run({"info"}).status);
    EXPECT_EQ(0, run({"doctor"}).status);
    expectInForce();
    EXPECT_EQ(0, run({"restore"}).status);
    EXPECT_EQ(before, state());
}

TEST_F(CtlTunnelTest, ApplyReplacesWhatAnEarlierOnePutInForce)
{
    makeDevice();
    const std::string before = state();
    writeProfile(goodProfile);
    EXPECT_EQ(0, run({"apply", profile}).status);
    writeProfile(R"({"tunnel":{"address":"10.8.0.2/24","peer":"10.8.0.1"},"routes":[{"destination":"10.99.0.0/16"}]})");
    EXPECT_EQ(0, run({"apply", profile}).status);
    EXPECT_THAT(routes(), HasSubstr("10.99.0.0/16 via 10.8.0.1 dev norvatun0"));
    EXPECT_THAT(routes(), Not(HasSubstr("10.20.0.0/16")));
    EXPECT_THAT(filter(), Not(HasSubstr("dport 22")));
    EXPECT_EQ(0, run({"restore"}).status);
    EXPECT_EQ(before, state());
}

TEST_F(CtlTunnelTest, KilledConnectIsCleanedUpByTheNextRun)
{
    writeProfile(goodProfile);
    ChildProcess connecting = connect();
    connecting.sendSignal(SIGKILL);
    EXPECT_EQ(128 + SIGKILL, exitCodeOf(connecting));
    EXPECT_THAT(filter(), HasSubstr("vpn.vpnoal"));
    EXPECT_EQ(0, run({"restore"}).status);
    expectStateAsBefore();
}

TEST_F(CtlTunnelTest, KilledConnectDoesNotStandInTheWayOfTheNextOne)
{
    writeProfile(goodProfile);
    ChildProcess killed = connect();
    killed.sendSignal(SIGKILL);
    killed.wait();
    ChildProcess connecting = connect();
    expectInForce();
    connecting.sendSignal(SIGINT);
    EXPECT_EQ(0, exitCodeOf(connecting));
    expectStateAsBefore();
}

TEST_F(CtlTunnelTest, ALiveTunnelIsNeitherReplacedNorRemoved)
{
    writeProfile(goodProfile);
    ChildProcess connecting = connect();
    const std::string connected = state();
    const std::string owner = "it belongs to process " + std::to_string(connecting.pid()) + ", which is running";
    const CommandResult applied = run({"apply", profile});
    EXPECT_EQ(1, applied.status);
    EXPECT_THAT(applied.output,
                HasSubstr("vpnoalctl: norvatun0: cannot be configured: " + owner +
                          "; end that process, or remove the configuration with 'vpnoalctl restore --force'\n"));
    EXPECT_EQ(connected, state());
    const CommandResult restored = run({"restore"});
    EXPECT_EQ(1, restored.status);
    EXPECT_THAT(restored.output, HasSubstr("vpnoalctl: restore: the configuration is not removed: " + owner +
                                           "; end that process, or remove the configuration with --force\n"));
    EXPECT_EQ(connected, state());
    connecting.sendSignal(SIGINT);
    EXPECT_EQ(0, exitCodeOf(connecting));
    expectStateAsBefore();
}

TEST_F(CtlTunnelTest, ConnectNoticesThatItsConfigurationWasTakenByForce)
{
    writeProfile(goodProfile);
    ChildProcess connecting = connect();
    const CommandResult restored = run({"restore", "--force"});
    EXPECT_EQ(0, restored.status) << restored.output;
    EXPECT_THAT(restored.output, HasSubstr("The tunnel's configuration is removed."));
    EXPECT_EQ(1, exitCodeOf(connecting));
    EXPECT_THAT(contentOf(output),
                HasSubstr("vpnoalctl: norvatun0: another process removed the tunnel's configuration; "
                          "the log names it; connect again when it is wanted\n"));
    EXPECT_THAT(contentOf(output), HasSubstr("interface-norvatun0: process "));
    expectStateAsBefore();
}

TEST_F(CtlTunnelTest, RestoreThatRemovesNothingSaysSo)
{
    makeDevice();
    const std::string before = state();
    writeProfile(goodProfile);
    ASSERT_EQ(0, run({"apply", profile}).status);
    const std::string applied = state();
    const std::vector<std::string> restoreWithoutRight{"setpriv", "--bounding-set=-net_admin", "--inh-caps=-net_admin",
                                                       program, "restore"};
    const CommandResult withoutRight = runCommand(restoreWithoutRight);
    EXPECT_EQ(1, withoutRight.status);
    EXPECT_THAT(withoutRight.output, HasSubstr("vpnoalctl: restore: the configuration is not removed: "));
    EXPECT_THAT(withoutRight.output, Not(HasSubstr("The tunnel's configuration is removed.")));
    EXPECT_EQ(applied, state());
    if (!testsupport::isInUserNamespace()) {  // a user namespace of one user has no other
        const CommandResult ordinary =
            runCommand({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", program, "restore"});
        EXPECT_EQ(1, ordinary.status);
        EXPECT_THAT(ordinary.output, HasSubstr("vpnoalctl: restore: the configuration is not removed: "
                                               "/run/vknetconfig cannot be read: Permission denied; "));
        EXPECT_EQ(applied, state());
    }
    EXPECT_EQ(0, run({"restore"}).status);
    EXPECT_EQ(before, state());
    EXPECT_EQ(0, runCommand(restoreWithoutRight).status) << "nothing is left to remove";
}

TEST_F(CtlTunnelTest, DeviceThatIsRemovedMeanwhileLeavesNothing)
{
    writeProfile(goodProfile);
    ChildProcess connecting = connect();
    runCommand({"ip", "link", "delete", "norvatun0"});
    EXPECT_EQ(1, exitCodeOf(connecting));
    expectStateAsBefore();
}

TEST_F(CtlTunnelTest, ProfileWithDnsIsRefusedWholeWithoutAResolver)
{
    writeProfile(R"({"tunnel":{"address":"10.8.0.2/24","peer":"10.8.0.1"},"dns":{"servers":["10.8.0.1"]},
                     "routes":[{"destination":"10.20.0.0/16"}],"filter":[{"action":"drop","protocol":"icmp"}]})");
    const CommandResult result = run({"connect", profile});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("ipv4.dns"));
    EXPECT_THAT(result.output,
                HasSubstr("vpnoalctl: apply: the platform refused the configuration, everything is restored"));
    expectStateAsBefore();
}

TEST_F(CtlTunnelTest, UndoLogFolderThatCannotBeMadeIsReportedAndNothingStays)
{
    std::ofstream("/run/vknetconfig") << "no folder";
    writeProfile(goodProfile);
    const CommandResult result = run({"connect", profile});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("undo log: "));
    expectStateAsBefore();
}

// Each fault by itself, in a profile that is good otherwise.
TEST_F(CtlTunnelTest, BadProfilesChangeNothing)
{
    const struct {
        const char* good;
        const char* bad;
        const char* key;
    } faults[] = {
        {"10.8.0.2/24", "10.8.0.256/24", "tunnel.address: "},
        {"10.8.0.2/24", "10.8.0.2/255.0.255.0", "tunnel.address: netmask"},
        {"\"peer\"", "\"pear\"", "tunnel.pear: unknown key; perhaps \"peer\" is meant"},
        {"1380", "\"1380\"", "tunnel.mtu: "},
        {"1380", "99999", "tunnel.mtu: "},
        {"10.20.0.0/16", "10.0.0.300", "routes[0].destination: \"10.0.0.300\" is no IPv4 address"},
        {"10.20.0.0/16", "10.20.0.0/255.0.255.0", "routes[0].destination: netmask"},
        {"10.8.0.7", "203.0.113.1", "routes[1].gateway: 203.0.113.1 cannot be reached"},
        {"\"metric\": 20", "\"metric\": -1", "routes[1].metric: "},
        {"\"udp\"", "\"icmp\"", "filter[0].destinationPort: the protocol \"icmp\" has no ports"},
        {"\"interface\": \"norvatun0\"", "\"interface\": \"norvatun01234567\"", "filter[0].interface: "},
        {"\"interface\": \"norvatun0\"", "\"interface\": \"nor;va\"", "filter[0].interface: "},
        {"\"accept\"", "\"reject\"", "filter[0].action: "},
        {"\"accept\"", "1", "filter[0].action: must be a text"},
        {": 53", ": 65536", "filter[0].destinationPort: "},
        {"\"filter\": [", "\"filter\": [[],", "filter[0]: must be an object"},
        {"\"routes\"", "\"dns\": {}, \"dns\": {}, \"routes\"", "dns: given twice"},
        {"\"routes\":", "\"routes\"", "the profile is not JSON: "},
    };
    for (const auto& fault : faults) {
        std::string text = goodProfile;
        const auto at = text.find(fault.good);
        ASSERT_NE(std::string::npos, at) << fault.good;
        writeProfile(text.replace(at, std::string(fault.good).size(), fault.bad));
        for (const char* command : {"connect", "apply"}) {
            const CommandResult result = run({command, profile});
            EXPECT_EQ(2, result.status) << fault.bad;
            EXPECT_THAT(result.output, StartsWith(std::string("vpnoalctl: /tmp/profile.json: ") + fault.key));
        }
    }
    expectStateAsBefore();
}

TEST_F(CtlTunnelTest, GatewayIsNoKeyOfAProfile)
{
    writeProfile(R"({"tunnel":{"address":"10.8.0.2/24","peer":"10.8.0.1"},"gateway":{"address":"198.51.100.2"}})");
    for (const char* command : {"connect", "apply"}) {
        const CommandResult result = run({command, profile});
        EXPECT_EQ(2, result.status);
        EXPECT_EQ("vpnoalctl: /tmp/profile.json: gateway: unknown key; correct the profile; nothing was changed\n",
                  result.output);
    }
    expectStateAsBefore();
}

TEST_F(CtlTunnelTest, OneMebibyteOfTextChangesNothing)
{
    writeProfile(R"({"tunnel":{"address":")" + std::string(1 << 20, '1') + R"(","peer":"10.8.0.1"}})");
    const CommandResult result = run({"connect", profile});
    EXPECT_EQ(2, result.status);
    EXPECT_LT(result.output.size(), 200u);
    expectStateAsBefore();
}

TEST_F(CtlTunnelTest, WithoutPrivilegesNothingIsHalfDone)
{
    writeProfile(goodProfile);
    const CommandResult result =
        runCommand({"setpriv", "--bounding-set=-net_admin", "--inh-caps=-net_admin", program, "connect", profile});
    EXPECT_EQ(1, result.status) << result.output;
    EXPECT_THAT(result.output, HasSubstr("'vpnoalctl doctor' shows what is missing"));
    expectStateAsBefore();
}

}  // namespace
