// SPDX-License-Identifier: Apache-2.0
//
// The program as a user runs it: command line, exit codes, and what it asks of the platform in which order, whatever
// interrupts it. Its platform library is a recording one (SlowNetConfig.cpp); kernel, device and signals are real.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "Files.h"
#include "Isolation.h"
#include "handles/UniqueFd.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using testsupport::ChildProcess;
using testsupport::CommandResult;
using testsupport::contentOf;
using testsupport::runCommand;

constexpr char program[] = WFOAL_BUILD_DIR "/bin/vpnoalctl";
constexpr char fakePlatform[] = WFOAL_BUILD_DIR "/tests/tools/vpnoalctl/fake-platform";
constexpr char calls[] = "/tmp/calls";
constexpr char profile[] = "/tmp/profile.json";

// The first words of the recorded calls.
std::vector<std::string> recordedCalls()
{
    std::vector<std::string> words;
    std::ifstream file(calls);
    for (std::string line; std::getline(file, line);)
        words.push_back(line.substr(0, line.find(' ')));
    return words;
}

void writeFile(const std::string& name, const std::string& text)
{
    std::ofstream(name) << text;
}

template <class Condition>
bool eventually(Condition condition)
{
    for (int tries = 0; tries < 500; ++tries) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

std::string links()
{
    return runCommand({"ip", "-br", "address"}).output;
}

class CommandTest : public testing::Test {
protected:
    void SetUp() override
    {
        unlink(calls);
        for (const char* name : {"NETCONFIG_DELAY", "NETCONFIG_RESULT", "NETCONFIG_NO_FILTER"})
            unsetenv(name);
        setenv("LD_LIBRARY_PATH", fakePlatform, 1);
        setenv("NETCONFIG_LOG", calls, 1);
        writeFile(profile, R"({"tunnel":{"address":"10.8.0.2/24","peer":"10.8.0.1","mtu":1280},
                               "filter":[{"action":"drop","protocol":"tcp","destinationPort":22}]})");
    }

    static CommandResult run(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), program);
        return runCommand(arguments);
    }
};

// Those that need the tunnel's device, which a user namespace may not open.
class TunnelCommandTest : public CommandTest {
protected:
    void SetUp() override
    {
        CommandTest::SetUp();
        if (testsupport::isInUserNamespace() && !UniqueFd(open("/dev/net/tun", O_RDWR | O_CLOEXEC)).valid()) {
            GTEST_SKIP() << "/dev/net/tun cannot be opened in a user namespace here";
        }
    }

    static ChildProcess startConnecting(const char* output = "/tmp/output")
    {
        const UniqueFd target(open(output, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        return ChildProcess({program, "connect", profile}, target.get());
    }

    static bool isConnected()
    {
        return eventually([] { return contentOf("/tmp/output").find("connected") != std::string::npos; });
    }

    static void expectRestored()
    {
        ASSERT_FALSE(recordedCalls().empty());
        EXPECT_EQ("no-filter", recordedCalls().back());
        EXPECT_THAT(links(), Not(HasSubstr("norvatun0")));
        EXPECT_EQ("", runCommand({"nft", "list", "tables"}).output);
    }
};

TEST_F(CommandTest, WrongUsageIsExitCode2)
{
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{}, "vpnoalctl: usage: A subcommand is required; see 'vpnoalctl --help'\n"},
        {{"info", "--nonsense"}, "vpnoalctl: usage: there is no option '--nonsense'; see 'vpnoalctl info --help'\n"},
        {{"restore", "--forse"},
         "vpnoalctl: usage: there is no option '--forse', perhaps '--force' is meant; see 'vpnoalctl restore "
         "--help'\n"},
        {{"certs", "lst"},
         "vpnoalctl: usage: there is no command 'lst', perhaps 'list' is meant; see 'vpnoalctl certs --help'\n"},
        {{"apply", "a", "b"}, "vpnoalctl: usage: nothing is expected where 'b' is; see 'vpnoalctl apply --help'\n"},
        {{"apply"}, "vpnoalctl: usage: profile is required; see 'vpnoalctl apply --help'\n"},
        {{"conect"},
         "vpnoalctl: usage: there is no command 'conect', perhaps 'connect' is meant; see 'vpnoalctl --help'\n"},
        {{"zzz"}, "vpnoalctl: usage: there is no command 'zzz'; see 'vpnoalctl --help'\n"},
    };
    for (const auto& [arguments, text] : cases) {
        const CommandResult result = run(arguments);
        EXPECT_EQ(2, result.status);
        EXPECT_EQ(text, result.output);
    }
}

TEST_F(CommandTest, ErrorsAreObjectsForMachines)
{
    writeFile(profile, R"({"routes":[{"destination":"10.0.0.300"}]})");
    EXPECT_EQ(
        "{\"error\":\"/tmp/profile.json: routes[0].destination: \\\"10.0.0.300\\\" is no IPv4 address\","
        "\"key\":\"routes[0].destination\",\"remedy\":\"correct the profile; nothing was changed\"}\n",
        run({"apply", profile, "--json"}).output);
    EXPECT_EQ(
        "{\"error\":\"usage: profile is required\",\"key\":\"usage\",\"remedy\":\"see 'vpnoalctl apply --help'\"}\n",
        run({"--json", "apply"}).output);
    // On stderr, where no result is.
    EXPECT_EQ("", runCommand({"sh", "-c", std::string(program) + " --json apply 2>/dev/null"}).output);
}

TEST_F(CommandTest, ProfilesAreFoundByTheirNames)
{
    ASSERT_EQ(0, runCommand({"mkdir", "-p", "/etc/vpnwfoal/profiles"}).status);
    writeFile("/etc/vpnwfoal/profiles/office-1.json", R"({"mistake":1})");
    EXPECT_THAT(run({"apply", "office-1"}).output,
                StartsWith("vpnoalctl: /etc/vpnwfoal/profiles/office-1.json: mistake: unknown key"));
    EXPECT_THAT(run({"connect", "office-1"}).output,
                StartsWith("vpnoalctl: /etc/vpnwfoal/profiles/office-1.json: mistake: unknown key"));
    EXPECT_THAT(run({"apply", "home"}).output, StartsWith("vpnoalctl: home: No such file or directory"));
    EXPECT_THAT(run({"apply", "../profiles/office-1"}).output, HasSubstr("No such file or directory"));
}

TEST_F(CommandTest, RestoreTellsMachinesToo)
{
    const CommandResult result = runCommand({"sh", "-c", std::string(program) + " --json restore 2>/dev/null"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("{\"state\":\"restored\"}\n", result.output);
}

TEST_F(CommandTest, HelpAndVersionAreExitCode0)
{
    for (const char* command : {"", "info", "doctor", "connect", "apply", "restore"}) {
        std::vector<std::string> arguments{"--help"};
        if (*command != '\0') arguments.insert(arguments.begin(), command);
        const CommandResult result = run(arguments);
        EXPECT_EQ(0, result.status) << command;
        EXPECT_THAT(result.output, HasSubstr("Exit codes: 0 done; 1 the operation failed; 2 wrong usage")) << command;
    }
    const CommandResult result = run({"--version"});
    EXPECT_EQ(0, result.status);
    EXPECT_THAT(result.output, StartsWith("vpnoalctl "));
}

TEST_F(CommandTest, PluginThatCannotBeLoadedIsExitCode3)
{
    const CommandResult result = run({"info", "--plugin", "/nowhere.so"});
    EXPECT_EQ(3, result.status);
    EXPECT_THAT(result.output, StartsWith("vpnoalctl: plug-in /nowhere.so: "));
    EXPECT_THAT(result.output, EndsWith("; give the plug-in's file with --plugin or $WFOAL_PLUGIN\n"));
    setenv("WFOAL_PLUGIN", "/elsewhere.so", 1);
    EXPECT_THAT(run({"info"}).output, StartsWith("vpnoalctl: plug-in /elsewhere.so: "));
    EXPECT_THAT(run({"info", "--plugin", "/nowhere.so"}).output, StartsWith("vpnoalctl: plug-in /nowhere.so: "));
    unsetenv("WFOAL_PLUGIN");
}

TEST_F(CommandTest, LibraryThatIsNoPluginIsRefused)
{
    const CommandResult result = run({"info", "--plugin", std::string(fakePlatform) + "/libVkNetConfigLib.so.0"});
    EXPECT_EQ(3, result.status);
    EXPECT_THAT(result.output, HasSubstr("has no CreatePlugin(), so it is no such plug-in"));
}

TEST_F(CommandTest, InfoNamesThePluginAndItsInterfaces)
{
    const CommandResult result = run({"info", "--json"});
    EXPECT_EQ(0, result.status);
    EXPECT_THAT(result.output, HasSubstr("\"soname\":\"libVpnWfOal.so.0\""));
    EXPECT_THAT(result.output, HasSubstr(R"("interfaces":["com.norva.wayfold.kest.system",)"
                                         R"("com.norva.wayfold.kest.certificate","com.norva.wayfold.kest.storage",)"
                                         R"("com.norva.wayfold.kest.socket"])"));
    EXPECT_THAT(result.output, HasSubstr(fakePlatform));
    EXPECT_THAT(recordedCalls(), ElementsAre());
}

TEST_F(CommandTest, RestoreAsksOnceAndSucceedsWithNothingInForce)
{
    EXPECT_EQ(0, run({"restore"}).status);
    EXPECT_THAT(recordedCalls(), ElementsAre("delete", "no-filter"));
}

TEST_F(CommandTest, BadProfileAsksNothingOfThePlatform)
{
    writeFile(profile, R"({"tunnel":{"address":"10.8.0.2/24","peer":"10.8.0.300"}})");
    for (const char* command : {"connect", "apply"}) {
        const CommandResult result = run({command, profile});
        EXPECT_EQ(2, result.status);
        EXPECT_EQ(
            "vpnoalctl: /tmp/profile.json: tunnel.peer: \"10.8.0.300\" is no IPv4 address; correct the profile; "
            "nothing was changed\n",
            result.output);
    }
    EXPECT_THAT(recordedCalls(), ElementsAre());
}

TEST_F(CommandTest, ApplyWithoutADeviceAsksNothingOfThePlatform)
{
    const CommandResult result = run({"apply", profile});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, StartsWith("vpnoalctl: norvatun0: there is no such interface; "));
    EXPECT_THAT(recordedCalls(), ElementsAre());
}

TEST_F(CommandTest, OutputThatCannotBeWrittenIsNoticed)
{
    const UniqueFd notForWriting(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(1, ChildProcess({program, "info"}, notForWriting.get()).wait());
}

TEST_F(CommandTest, DoctorNamesWhatIsMissingAndTheRemedy)
{
    const CommandResult result = run({"doctor", "--plugin", "/nowhere.so"});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, StartsWith("missing  plug-in              /nowhere.so: "));
    EXPECT_THAT(result.output, HasSubstr("; install the plug-in, or name its file with --plugin or $WFOAL_PLUGIN\n"));
    // No bus in these namespaces; DNS is not what every tunnel needs.
    EXPECT_THAT(result.output, HasSubstr("\nlimited  service bus          the system bus does not answer: "));
}

TEST_F(CommandTest, DoctorIsReadableByMachines)
{
    const CommandResult result = run({"doctor", "--json"});
    EXPECT_THAT(result.output,
                HasSubstr(R"({"state":"ok","check":"ip tool","detail":"/sbin/ip is there","remedy":""})"));
    if (!testsupport::isInUserNamespace()) {
        EXPECT_EQ(0, result.status);
    }
}

TEST_F(TunnelCommandTest, ConnectMakesTheDeviceAppliesHoldsAndRestores)
{
    ChildProcess connecting = startConnecting();
    ASSERT_TRUE(isConnected()) << contentOf("/tmp/output");
    EXPECT_THAT(recordedCalls(), ElementsAre("no-filter", "filter", "add"));
    EXPECT_THAT(contentOf(calls), HasSubstr(R"("ip": "0x0200080a", "netmask": "0x00ffffff")"));
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
    ASSERT_TRUE(eventually([] { return recordedCalls().size() == 3; }));
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
    EXPECT_TRUE(eventually([] { return recordedCalls().size() == 5; }));
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
    ASSERT_TRUE(eventually([] { return contentOf("/tmp/output").find("started") != std::string::npos; }));
    connecting.sendSignal(SIGTERM);
    EXPECT_EQ(128 + SIGTERM, connecting.wait());
    expectRestored();
}

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
    EXPECT_THAT(result.output, HasSubstr(R"("routes":["10.20.0.0/16"])"));
    EXPECT_THAT(contentOf(calls), HasSubstr(R"("netmask": "255.255.0.0", "gateway": "0.0.0.0")"));
}

TEST_F(ApplyCommandTest, ProfileWithoutATunnelTakesTheDevicesOwn)
{
    writeFile(profile, R"({"routes":[{"destination":"10.20.0.0/16"}]})");
    const CommandResult result = run({"apply", profile, "--json"});
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_THAT(result.output, HasSubstr(R"("address":"10.8.0.2/24","peer":"10.8.0.1","mtu":1500,)"));
    EXPECT_THAT(result.output, HasSubstr(R"("routes":["10.20.0.0/16 via 10.8.0.1"])"));
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
    ASSERT_TRUE(eventually([] { return recordedCalls().size() == 3; }));
    applying.sendSignal(SIGINT);
    EXPECT_EQ(1, applying.wait());
    EXPECT_THAT(contentOf("/tmp/output"), HasSubstr("vpnoalctl: apply: interrupted, everything is restored; "));
    EXPECT_THAT(recordedCalls(), ElementsAre("no-filter", "filter", "add", "delete", "no-filter"));
}

}  // namespace
