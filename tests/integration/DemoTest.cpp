// SPDX-License-Identifier: Apache-2.0
//
// demo.sh succeeds, fails when a step fails, and leaves the machine (here: this test's own namespaces) as it found it,
// also when it is interrupted.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "Daemons.h"

using namespace testsupport;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

std::string contentOf(const std::string& path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string outputOf(const std::vector<std::string>& command)
{
    const CommandResult result = runCommand(command);
    EXPECT_EQ(result.status, 0) << command.front() << ": " << result.output;
    return result.output;
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
        const std::string reason = daemonUnavailable(Daemon::resolved);
        if (!reason.empty()) GTEST_SKIP() << reason;
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

    // Runs the demo until its output holds `text`, and interrupts it there. Returns its exit status.
    static int interruptAt(const std::string& text)
    {
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        const UniqueFd reader(ends[0]);
        UniqueFd writer(ends[1]);
        ChildProcess demo(command(), writer.get());
        writer.reset();
        std::string output;
        char character = 0;
        bool interrupted = false;
        while (read(reader.get(), &character, 1) == 1) {
            output += character;
            if (interrupted || output.find(text) == std::string::npos) continue;
            demo.sendSignal(SIGINT);
            interrupted = true;
        }
        EXPECT_TRUE(interrupted) << output;
        EXPECT_THAT(output, Not(HasSubstr("steps verified"))) << "it was not interrupted in the middle";
        return demo.wait();
    }

    static std::vector<std::string> command() { return {WFOAL_SOURCE_DIR "/demo.sh", "--build", WFOAL_BUILD_DIR}; }

private:
    const std::string mMark = "demo-of-" + std::to_string(getpid());
    std::vector<std::string> mBefore;
};

}  // namespace

TEST_F(DemoTest, EveryStepIsVerified)
{
    const CommandResult result = runCommand(command());
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_THAT(result.output, HasSubstr("steps verified"));
}

TEST_F(DemoTest, AStepThatFailsIsNamedAndTheDemoFails)
{
    setenv("WFOAL_PLUGIN", "/no/such/plugin.so", 1);
    const CommandResult result = runCommand(command());
    unsetenv("WFOAL_PLUGIN");
    EXPECT_EQ(result.status, 1) << result.output;
    EXPECT_THAT(result.output, HasSubstr("✗"));
    EXPECT_THAT(result.output, HasSubstr("/no/such/plugin.so"));
    EXPECT_THAT(result.output, Not(HasSubstr("steps verified")));
}

class DemoInterruptTest : public DemoTest, public testing::WithParamInterface<const char*> {};

TEST_P(DemoInterruptTest, LeavesNothing)
{
    EXPECT_EQ(interruptAt(GetParam()), 130);
}

INSTANTIATE_TEST_SUITE_P(AfterTheLine, DemoInterruptTest,
                         testing::Values("Three private networks", "A resolver", "What the plug-in configured",
                                         "ping through the tunnel", "Restore", "Control"));
