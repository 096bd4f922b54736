// SPDX-License-Identifier: Apache-2.0
//
// The real daemons that other tests rely on come up in private namespaces, do their work, and leave with the test.
#include "Daemons.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "Isolation.h"

using namespace testsupport;
using testing::HasSubstr;
using testing::Not;

namespace {

std::string firstWord(const std::string& path)
{
    std::ifstream file(path);
    std::string word;
    file >> word;
    return word;
}

void skipUnless(Daemon daemon)
{
    const std::string reason = daemonUnavailable(daemon);
    if (!reason.empty()) GTEST_SKIP() << reason;
}

}  // namespace

#define SKIP_UNLESS(daemon) \
    skipUnless(daemon);     \
    if (IsSkipped()) return

TEST(DaemonsTest, TheMachinesEtcCannotBeWritten)
{
    EXPECT_NE(runCommand({"touch", "/etc/dpkg/probe"}).status, 0);
    EXPECT_EQ(runCommand({"touch", "/etc/probe"}).status, 0);
    struct stat status {};
    EXPECT_NE(stat("/run/machine-etc/probe", &status), 0);
    ASSERT_EQ(stat("/etc/resolv.conf", &status), 0);
    EXPECT_EQ(status.st_size, 0);
}

TEST(DaemonsTest, TheBusLetsServicesOwnTheirNames)
{
    const ChildProcess bus = startBus();
    const CommandResult result = runCommand({"gdbus", "call", "--system", "-d", "org.freedesktop.DBus", "-o", "/", "-m",
                                             "org.freedesktop.DBus.RequestName", "com.vesk.anything", "0"});
    EXPECT_EQ(result.output, "(uint32 1,)\n");
}

TEST(DaemonsTest, ResolvedKeepsTheDnsOfALink)
{
    SKIP_UNLESS(Daemon::resolved);
    const ChildProcess bus = startBus();
    const ChildProcess resolved = startDaemon(Daemon::resolved);
    ASSERT_EQ(runCommand({"ip", "link", "add", "link0", "type", "veth", "peer", "name", "link1"}).status, 0);
    EXPECT_EQ(runCommand({daemonTool("resolvectl"), "dns", "link0", "10.9.8.7"}).output, "");
    EXPECT_THAT(runCommand({daemonTool("resolvectl"), "dns", "link0"}).output, HasSubstr("(link0): 10.9.8.7"));
}

TEST(DaemonsTest, ResolvedMayBeRestarted)
{
    SKIP_UNLESS(Daemon::resolved);
    const ChildProcess bus = startBus();
    ChildProcess resolved = startDaemon(Daemon::resolved);
    resolved.stop();
    EXPECT_THAT(runCommand({daemonTool("resolvectl"), "dns"}).output, Not(HasSubstr("Global")));
    resolved = startDaemon(Daemon::resolved);
    EXPECT_THAT(runCommand({daemonTool("resolvectl"), "dns"}).output, HasSubstr("Global"));
}

TEST(DaemonsTest, ElogindSuspendsIntoAPrivateFile)
{
    SKIP_UNLESS(Daemon::elogind);
    const ChildProcess bus = startBus();
    const ChildProcess elogind = startDaemon(Daemon::elogind);
    ASSERT_EQ(firstWord("/sys/power/state"), "freeze");
    const CommandResult result =
        runCommand({"gdbus", "call", "--system", "-d", "org.freedesktop.login1", "-o", "/org/freedesktop/login1", "-m",
                    "org.freedesktop.login1.Manager.Suspend", "false"});
    EXPECT_EQ(result.output, "()\n");
}

TEST(DaemonsTest, NetworkManagerListsTheDevices)
{
    SKIP_UNLESS(Daemon::networkManager);
    const ChildProcess bus = startBus();
    const ChildProcess manager = startDaemon(Daemon::networkManager);
    ASSERT_EQ(runCommand({"ip", "link", "add", "device0", "type", "veth", "peer", "name", "device1"}).status, 0);
    EXPECT_THAT(runCommand({daemonTool("nmcli"), "device"}).output, HasSubstr("device0"));
}

TEST(DaemonsTest, ADaemonThatCannotStartIsAnErrorWithItsLog)
{
    SKIP_UNLESS(Daemon::networkManager);
    const ChildProcess bus = startBus();
    std::filesystem::remove_all("/run/private/NetworkManager");
    ASSERT_EQ(runCommand({"mkdir", "-p", "/run/private/NetworkManager/NetworkManager.conf/x"}).status, 0);
    try {
        startDaemon(Daemon::networkManager);
        FAIL() << "NetworkManager started without its configuration";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("has ended"));
        EXPECT_THAT(error.what(), HasSubstr("NetworkManager.conf"));
    }
}

TEST(ChildProcessTest, TellsExitCodesAndSignals)
{
    EXPECT_EQ(runCommand({"sh", "-c", "echo out; echo err >&2; exit 3"}).status, 3);
    EXPECT_EQ(runCommand({"sh", "-c", "echo out; echo err >&2; exit 3"}).output, "out\nerr\n");
    EXPECT_EQ(runCommand({"no-such-program"}).status, 127);
    ChildProcess sleeper({"sleep", "100"});
    EXPECT_TRUE(sleeper.running());
    sleeper.sendSignal(SIGKILL);
    EXPECT_EQ(sleeper.wait(), 128 + SIGKILL);
    EXPECT_FALSE(sleeper.running());
}
