// SPDX-License-Identifier: Apache-2.0
//
// demo.sh succeeds, fails when a step fails, does what its options say, and leaves the machine (here: this test's own
// namespaces) as it found it, also when it is interrupted.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "Daemons.h"
#include "Files.h"
#include "Isolation.h"

using namespace testsupport;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using testsupport::contentOf;

constexpr int allVerified = 0;
constexpr int someSkipped = 3;

namespace {

std::string outputOf(const std::vector<std::string>& command)
{
    const CommandResult result = runCommand(command);
    EXPECT_EQ(result.status, 0) << command.front() << ": " << result.output;
    return result.output;
}

std::size_t countIn(const std::string& text, const std::string& part)
{
    std::size_t found = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++found;
    return found;
}

// Processes that carry a text in their environment, which children inherit.
std::vector<std::string> processesWith(const std::string& text)
{
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string pid = entry.path().filename();
        if (pid.find_first_not_of("0123456789") != std::string::npos || pid == std::to_string(getpid())) continue;
        if (contentOf(entry.path() / "environ").find(text) != std::string::npos) found.push_back(pid);
    }
    return found;
}

class DemoTest : public testing::Test {
protected:
    void SetUp() override
    {
        for (const Daemon daemon : {Daemon::resolved, Daemon::elogind}) {
            const std::string reason = daemonUnavailable(daemon);
            // Where elogind cannot run at all the demo skips it.
            if (!reason.empty() && !(daemon == Daemon::elogind && isInUserNamespace())) GTEST_SKIP() << reason;
        }
        std::ofstream("/etc/resolv.conf") << "nameserver 192.0.2.250\n";
        outputOf({"ip", "link", "add", "machine0", "type", "veth", "peer", "name", "machine1"});
        outputOf({"ip", "address", "add", "192.0.2.200/24", "dev", "machine0"});
        outputOf({"ip", "link", "set", "machine0", "up"});
        outputOf({"ip", "route", "add", "10.20.0.0/16", "dev", "machine0"});
        outputOf({"nft", "add table ip machine; add chain ip machine input { type filter hook input priority 0; }"});
        setenv("WFOAL_DEMO_MARK", mMark.c_str(), 1);
        mBefore = snapshot();
    }

    void TearDown() override
    {
        if (IsSkipped()) return;
        EXPECT_EQ(snapshot(), mBefore);
        EXPECT_THAT(processesWith(mMark), IsEmpty());
        runCommand({"ip", "link", "delete", "machine0"});
        runCommand({"nft", "delete", "table", "ip", "machine"});
    }

    // The link's state follows a moment after it was set up; what is asked for is its configuration.
    static std::vector<std::string> snapshot()
    {
        return {outputOf({"ip", "-4", "-o", "address"}),
                outputOf({"ip", "route", "show", "table", "all"}),
                outputOf({"ip", "rule"}),
                outputOf({"nft", "list", "ruleset"}),
                contentOf("/etc/resolv.conf"),
                outputOf({"ls", "-A", "/tmp", "/run", "/var"}),
                outputOf({"ip", "-br", "link", "show", "type", "tun"})};
    }

    // Runs the demo until its output holds `text`, and interrupts it there. Step by step, so that it cannot have ended
    // before it is interrupted. Returns its exit status.
    static int interruptAt(const std::string& text)
    {
        constexpr char enter[] = "/tmp/enter";
        EXPECT_EQ(mkfifo(enter, 0600), 0);
        const UniqueFd typing(open(enter, O_RDWR | O_CLOEXEC));
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        const UniqueFd reader(ends[0]);
        UniqueFd writer(ends[1]);
        std::vector<std::string> words{"sh", "-c", std::string("exec \"$@\" <") + enter, "sh"};
        const std::vector<std::string> stepwise = command({"--step"});
        words.insert(words.end(), stepwise.begin(), stepwise.end());
        ChildProcess demo(words, writer.get());
        writer.reset();
        std::string output;
        char character = 0;
        bool interrupted = false;
        while (read(reader.get(), &character, 1) == 1) {
            output += character;
            if (interrupted) continue;
            if (endsWith(output, "Enter goes on.")) {
                EXPECT_EQ(write(typing.get(), "\n", 1), 1);
            }
            if (!endsWith(output, text)) continue;
            demo.sendSignal(SIGINT);
            interrupted = true;
        }
        std::filesystem::remove(enter);
        EXPECT_TRUE(interrupted) << output;
        EXPECT_THAT(output, Not(HasSubstr("Time line"))) << "it was not interrupted in the middle";
        return demo.wait();
    }
    static bool endsWith(const std::string& text, const std::string& end)
    {
        return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
    }

    static std::vector<std::string> command(const std::vector<std::string>& options = {})
    {
        std::vector<std::string> words{WFOAL_SOURCE_DIR "/demo.sh", "--build", WFOAL_BUILD_DIR};
        words.insert(words.end(), options.begin(), options.end());
        return words;
    }
    /// With `input`, the output of a shell command, to read from.
    static CommandResult runWith(const std::string& input, const std::vector<std::string>& options)
    {
        std::vector<std::string> words{"sh", "-c", input + " | \"$@\"", "sh"};
        const std::vector<std::string> demo = command(options);
        words.insert(words.end(), demo.begin(), demo.end());
        return runCommand(words);
    }
    /// A user namespace lacks what some steps need.
    static int expectedStatus() { return isInUserNamespace() ? someSkipped : allVerified; }

private:
    const std::string mMark = "demo-of-" + std::to_string(getpid());
    std::vector<std::string> mBefore;
};

}  // namespace

TEST_F(DemoTest, EveryStepIsVerifiedAndDrawn)
{
    const CommandResult result = runCommand(command({"--plot", "/tmp/demo.svg"}));
    EXPECT_EQ(result.status, expectedStatus()) << result.output;
    EXPECT_THAT(result.output, HasSubstr(" steps verified"));
    EXPECT_THAT(result.output, HasSubstr("\n    keys and certificates were made: "));
    EXPECT_THAT(result.output, HasSubstr("Time line"));
    const std::string picture = contentOf("/tmp/demo.svg");
    EXPECT_THAT(picture, StartsWith("<svg "));
    EXPECT_THAT(picture, HasSubstr("Three gateways"));
    const std::string readAsXml = "import xml.dom.minidom; xml.dom.minidom.parse('/tmp/demo.svg')";
    EXPECT_EQ(runCommand({"python3", "-c", readAsXml}).status, 0) << picture;
    for (const char* lane : {"Wi-Fi", "cellular", "outer socket", "tunnel", "packets through", "packets beside", "0 s"})
        EXPECT_THAT(picture, HasSubstr(std::string(">") + lane + "</text>"));
    // Both agents lose Wi-Fi and get it back.
    const std::size_t outages = result.output.find("OpenVPN is connected") == std::string::npos ? 0 : 4;
    EXPECT_EQ(countIn(picture, R"(opacity="0.35")"), outages) << picture;
    EXPECT_EQ(countIn(result.output, " ms without an answer, "), outages) << result.output;
    std::filesystem::remove("/tmp/demo.svg");
}

// A program that may not be run is as good as none.
TEST_F(DemoTest, AMissingOpenVpnIsSkipped)
{
    if (!std::filesystem::exists("/usr/sbin/openvpn")) GTEST_SKIP() << "openvpn is not where Debian has it";
    std::vector<std::string> words{
        "unshare", "--mount", "sh", "-c", "mount -n --bind /dev/null /usr/sbin/openvpn && exec \"$@\"", "sh"};
    const std::vector<std::string> demo = command();
    words.insert(words.end(), demo.begin(), demo.end());
    const CommandResult result = runCommand(words);
    EXPECT_EQ(result.status, someSkipped) << result.output;
    EXPECT_THAT(result.output,
                ContainsRegex("OpenVPN through the plug-in +skipped: (openvpn is not installed|this user)"));
}

// Every line is one JSON object, and the summary counts them.
TEST_F(DemoTest, JsonForMachines)
{
    const CommandResult result = runCommand(command({"--json"}));
    EXPECT_EQ(result.status, expectedStatus()) << result.output;
    std::ofstream("/tmp/demo.json") << result.output;
    const std::string judge = R"(
import json, re, sys
lines = [json.loads(line) for line in open('/tmp/demo.json')]
steps, summary = lines[:-1], lines[-1]['summary']
assert [step['step'] for step in steps] == list(range(1, len(steps) + 1))
verified = [step for step in steps if step['result'] == 'verified']
assert all(step['milliseconds'] >= 0 and step['check'] and step['evidence'] and step['chapter'] for step in verified)
assert all(step['reason'] for step in steps if step['result'] == 'skipped')
evidence = {step['what']: step['evidence'] for step in verified}
if 'tunnel device' in evidence:
    port = re.search(r'%eth0:(\d+) ', evidence['outer socket bound to Wi-Fi']).group(1)
    assert evidence['the gateway has verified who the user is'].endswith(' from 192.0.2.10:' + port)
if 'OpenVPN is connected, the hook has configured it' in evidence:
    assert re.match('0 of [1-9][0-9]* tries', evidence['IPv6 beside the tunnel in between'])
    assert 'TLSv1.3' in evidence['with TLS 1.3']
    session = open(sys.argv[1]).read()
    for step in 'all traffic goes into the tunnel', 'traffic goes out over Wi-Fi as before':
        assert '\n' + evidence[step] + '\n' in session, evidence[step]
assert summary['verified'] == len(verified) and summary['skipped'] == len(steps) - len(verified) and len(verified) > 30
)";
    const CommandResult judged = runCommand({"python3", "-c", judge, WFOAL_SOURCE_DIR "/README.md"});
    EXPECT_EQ(judged.status, 0) << judged.output << result.output;
    std::filesystem::remove("/tmp/demo.json");
}

TEST_F(DemoTest, KeepsAShellInsideWithTheConnectionUp)
{
    const CommandResult result =
        runWith("echo 'echo INSIDE; ip -br address show norvatun0; in_gateway ip -br address show eth0'", {"--keep"});
    EXPECT_EQ(result.status, expectedStatus()) << result.output;
    const std::string inside = result.output.substr(std::min(result.output.find("\nINSIDE"), result.output.size()));
    EXPECT_THAT(inside, HasSubstr("10.8.0.2 peer 10.8.0.1/24"));
    EXPECT_THAT(inside, HasSubstr("198.51.100.2/30"));
}

TEST_F(DemoTest, StopsAfterEachStep)
{
    const CommandResult result = runWith("yes ''", {"--step"});
    EXPECT_EQ(result.status, expectedStatus()) << result.output;
    EXPECT_EQ(countIn(result.output, "✓"), countIn(result.output, "Enter goes on."));
    EXPECT_GT(countIn(result.output, "✓"), 30u);
}

TEST_F(DemoTest, AStepThatFailsIsNamedAndTheDemoFails)
{
    setenv("WFOAL_PLUGIN", "/no/such/plugin.so", 1);
    const CommandResult result = runCommand(command());
    const CommandResult json = runCommand(command({"--json"}));
    unsetenv("WFOAL_PLUGIN");
    EXPECT_EQ(result.status, 1) << result.output;
    EXPECT_THAT(result.output, HasSubstr("✗"));
    EXPECT_THAT(result.output, HasSubstr("/no/such/plugin.so"));
    EXPECT_THAT(result.output, HasSubstr("A step failed after "));
    EXPECT_EQ(json.status, 1) << json.output;
    EXPECT_THAT(json.output, HasSubstr(R"("result":"failed")"));
    EXPECT_THAT(json.output, HasSubstr(R"("exitStatus":1)"));
}

// As in a clone where nothing was fetched yet.
TEST_F(DemoTest, DaemonsThatWereNotFetchedAreNamed)
{
    setenv("WFOAL_DAEMONS_DIR", "/no/such/folder", 1);
    const CommandResult result = runCommand(command());
    unsetenv("WFOAL_DAEMONS_DIR");
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.output,
              "demo.sh: there is no systemd-resolved in /no/such/folder; tests/support/fetch-daemons.sh unpacks it "
              "there\n");
}

TEST_F(DemoTest, DaemonThatDoesNotStartIsNamed)
{
    std::string folder = WFOAL_BUILD_DIR "/daemons.XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    std::filesystem::create_directory(folder + "/bin");
    std::ofstream(folder + "/bin/systemd-resolved") << "#!/bin/sh\necho 'no such library'; exit 127\n";
    std::filesystem::permissions(folder + "/bin/systemd-resolved", std::filesystem::perms::owner_all);
    setenv("WFOAL_DAEMONS_DIR", folder.c_str(), 1);
    const CommandResult result = runCommand(command());
    unsetenv("WFOAL_DAEMONS_DIR");
    std::filesystem::remove_all(folder);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, HasSubstr("no such library\ndaemons.sh: resolved did not start\n"));
    EXPECT_THAT(result.output, HasSubstr("✗"));
    EXPECT_THAT(result.output, HasSubstr("A step failed after 3 verified ones."));
}

TEST_F(DemoTest, UserWhoMayNotOpenTheTunnelDeviceSeesNoStepThatLooksFailed)
{
    if (isInUserNamespace()) GTEST_SKIP() << "another user cannot be had in a user namespace";
    const std::string script =
        "touch /tmp/closed && chmod 0 /tmp/closed && mount -n --bind /tmp/closed /dev/net/tun && "
        "exec setpriv --reuid 65534 --regid 65534 --clear-groups \"$@\"";
    std::vector<std::string> words{"unshare", "--mount", "sh", "-c", script, "sh"};
    const std::vector<std::string> demo = command();
    words.insert(words.end(), demo.begin(), demo.end());
    const CommandResult result = runCommand(words);
    std::filesystem::remove("/tmp/closed");
    if (result.output.find("does not let this user make private namespaces") != std::string::npos) {
        GTEST_SKIP() << "an ordinary user cannot make namespaces here";
    }
    EXPECT_EQ(result.status, someSkipped) << result.output;
    EXPECT_THAT(result.output, HasSubstr("the handshake is done; there is no tunnel device for this user: "));
    EXPECT_THAT(result.output, Not(HasSubstr("exit status 1")));
}

TEST_F(DemoTest, WrongUsage)
{
    for (const std::vector<std::string>& options :
         std::vector<std::vector<std::string>>{{"--nonsense"}, {"--plot"}, {"--build", "/no/such/build"}}) {
        const CommandResult result = runCommand(command(options));
        EXPECT_EQ(result.status, 2) << result.output;
        EXPECT_THAT(result.output, StartsWith("demo.sh: "));
    }
    const CommandResult help = runCommand(command({"--help"}));
    EXPECT_EQ(help.status, 0);
    for (const char* option : {"--json", "--step", "--keep", "--plot FILE", "--build FOLDER", "Exit status"})
        EXPECT_THAT(help.output, HasSubstr(option));
}

class DemoInterruptTest : public DemoTest, public testing::WithParamInterface<const char*> {};

TEST_P(DemoInterruptTest, LeavesNothing)
{
    EXPECT_EQ(interruptAt(GetParam()), 130);
}

INSTANTIATE_TEST_SUITE_P(AfterTheLine, DemoInterruptTest,
                         testing::Values("Networks: ", "Services: ", "The user's certificate", "Three gateways",
                                         "What the plug-in configured", "ping through the tunnel", "Wi-Fi is lost",
                                         "The device sleeps", "The agent is killed", "Restore", "OpenVPN itself",
                                         "on over the cellular network"));
