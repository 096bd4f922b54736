// SPDX-License-Identifier: Apache-2.0
#include "process/Subprocess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "ResourceLimits.h"
#include "handles/UniqueFd.h"
#include "io/WholeFile.h"

namespace {

using namespace std::chrono_literals;
using wfoal::runSubprocess;
using wfoal::Subprocess;
using wfoal::SubprocessResult;

constexpr char folder[] = "/tmp/subprocess";

TEST(SubprocessTest, AResultIsToldInWords)
{
    EXPECT_EQ(runSubprocess({"sh", "-c", "exit 0"}, {}, 5s).reason(), "exit code 0");
    EXPECT_TRUE(runSubprocess({"true"}, {}, 5s).succeeded());
    EXPECT_EQ(runSubprocess({"sh", "-c", "kill -9 $$"}, {}, 5s).reason(), "killed by signal 9");
    EXPECT_EQ(runSubprocess({"absent-tool"}, {}, 5s).reason(), "it cannot be started: No such file or directory");
}

TEST(SubprocessTest, AMegabyteInAndOutBlocksNobody)
{
    const std::string megabyte(1 << 20, 'x');
    const SubprocessResult result = runSubprocess({"cat"}, megabyte, 20s);
    EXPECT_TRUE(result.succeeded());
    EXPECT_EQ(result.output, std::string(200, 'x'));
}

TEST(SubprocessTest, ArgumentsAreNoShellText)
{
    const SubprocessResult result = runSubprocess({"echo", "$(id); `id` *"}, {}, 5s);
    EXPECT_EQ(result.output, "$(id); `id` *");
}

TEST(SubprocessTest, NoFileOfThisProcessIsOpenInTheProgram)
{
    const UniqueFd low(open("/dev/null", O_RDONLY));
    const UniqueFd high(fcntl(low.get(), F_DUPFD, 700));
    ASSERT_GE(high.get(), 700);
    EXPECT_EQ(runSubprocess({"sh", "-c", "[ -e /proc/$$/fd/700 ] || echo closed"}, {}, 5s).output, "closed");
}

// What this process prints must not get into the program's input.
TEST(SubprocessTest, InputIsNoStandardFileOfThisProcess)
{
    const UniqueFd kept(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 100));
    close(STDIN_FILENO);
    const SubprocessResult result =
        runSubprocess({"sh", "-c", "cat; readlink /proc/$PPID/fd/0 | grep memfd || echo ' elsewhere'"}, "text", 5s);
    EXPECT_LT(fcntl(STDIN_FILENO, F_GETFD), 0) << "it is closed as before";
    dup2(kept.get(), STDIN_FILENO);
    EXPECT_EQ(result.output, "text elsewhere");
}

TEST(SubprocessTest, ASignalToThisProcessDoesNotEndTheWait)
{
    const auto handler = signal(SIGUSR1, [](int) {});
    const SubprocessResult result =
        runSubprocess({"sh", "-c", "for i in 1 2 3 4 5; do kill -USR1 $PPID; sleep 0.01; done"}, {}, 5s);
    signal(SIGUSR1, handler);
    EXPECT_TRUE(result.succeeded()) << result.reason();
}

TEST(SubprocessTest, AnAgentThatIgnoresItsChildrenIsToldSo)
{
    const auto handler = signal(SIGCHLD, SIG_IGN);
    const SubprocessResult result = runSubprocess({"true"}, {}, 5s);
    signal(SIGCHLD, handler);
    EXPECT_EQ(result.outcome, SubprocessResult::Outcome::Unknown);
    EXPECT_EQ(result.reason(), "its result is lost, as the program ignores SIGCHLD");
}

TEST(SubprocessTest, WithoutRoomForTheInputNothingIsStarted)
{
    const testsupport::NoFileGrows full;
    EXPECT_EQ(runSubprocess({"true"}, "text", 5s).reason(), "it cannot be started: File too large");
}

TEST(SubprocessTest, AProgramThatCannotBeWatchedIsEnded)
{
    const std::vector<std::string> command{"/bin/sleep", "3600"};
    {
        const testsupport::NoNewDescriptors none;
        EXPECT_THROW(Subprocess(command, Subprocess::Sharing::All, {}), std::system_error);
    }
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "no child is left";
    EXPECT_EQ(errno, ECHILD);
}

TEST(SubprocessTest, AProgramThatCannotBeStartedIsReportedAtOnce)
{
    EXPECT_THROW(Subprocess({"/absent"}, Subprocess::Sharing::All, {}), std::system_error);
}

class SharingProgramTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::create_directories(folder);
        std::filesystem::remove(out);
    }

    static std::vector<std::string> shell(const std::string& text) { return {"/bin/sh", "-c", text}; }
    static std::string output() { return *wfoal::readWhole(out); }

    static constexpr char out[] = "/tmp/subprocess/out";
};

TEST_F(SharingProgramTest, ItHasTheEnvironmentTheGroupAndOneInheritedFile)
{
    setenv("SUBPROCESS_TEST", "shared", 1);
    const UniqueFd closeOnExec(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const UniqueFd inherited(fcntl(closeOnExec.get(), F_DUPFD_CLOEXEC, 150));
    const UniqueFd hidden(fcntl(closeOnExec.get(), F_DUPFD_CLOEXEC, 151));
    Subprocess program(
        shell("{ echo $SUBPROCESS_TEST; ps -o pgid= -p $$; ls /proc/$$/fd | grep 15; } > " + std::string(out)),
        Subprocess::Sharing::All, {-1, -1, inherited.get()});
    ASSERT_TRUE(program.wait(5s));
    std::string text = output();
    text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
    EXPECT_EQ(text, "shared\n" + std::to_string(getpgrp()) + "\n150\n");
}

TEST_F(SharingProgramTest, WaitReturnsWhenItsTimeIsOver)
{
    Subprocess program(shell("exec sleep 3600"), Subprocess::Sharing::All, {});
    EXPECT_FALSE(program.wait(0ms));
    EXPECT_FALSE(program.wait(20ms));
    EXPECT_EQ(program.end().reason(), "killed by signal 15");
    EXPECT_EQ(program.end().reason(), "killed by signal 15") << "it is told again";
}

TEST_F(SharingProgramTest, AProgramThatIgnoresSigtermIsKilled)
{
    Subprocess program(shell("trap '' TERM; echo ready > " + std::string(out) + "; while :; do sleep 0.1; done"),
                       Subprocess::Sharing::All, {});
    for (int attempt = 0; attempt < 500 && !std::filesystem::exists(out); ++attempt)
        EXPECT_FALSE(program.wait(10ms));
    EXPECT_EQ(program.end().reason(), "killed by signal 9");
}

TEST_F(SharingProgramTest, IgnoredChildrenDoNotHoldAnybodyUp)
{
    const auto handler = signal(SIGCHLD, SIG_IGN);
    Subprocess program(shell("exit 3"), Subprocess::Sharing::All, {});
    const auto result = program.wait(5s);
    signal(SIGCHLD, handler);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->outcome, SubprocessResult::Outcome::Unknown);
}

}  // namespace
