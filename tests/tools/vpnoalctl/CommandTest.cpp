// SPDX-License-Identifier: Apache-2.0
//
// The program as a user runs it: command line, exit codes, and what it asks of the platform.
#include <sys/stat.h>

#include "CommandFixture.h"

using namespace vpnoalctltest;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

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
        {{"-v", "--", "run"}, "vpnoalctl: usage: there is no option '--'; see 'vpnoalctl --help'\n"},
        {{"--plugin", "apply", "run", "--"},
         "vpnoalctl: run: there is no command; write it after \"--\": vpnoalctl run [PROFILE] -- COMMAND ...\n"},
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
    const CommandResult result = run({"info", "--plugin", fakeNetConfig});
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
    EXPECT_THAT(result.output, HasSubstr(fakeNetConfig));
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

}  // namespace
