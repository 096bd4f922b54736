// SPDX-License-Identifier: Apache-2.0
//
// What vpnoalctl status reads beside the kernel: real resolvers, and the undo log.
#include <poll.h>
#include <sys/stat.h>

#include <cstdlib>

#include "Daemons.h"
#include "StatusKit.h"
#include "undolog/DnsLine.h"
#include "undolog/UndoLogFiles.h"

namespace {

using testsupport::Daemon;
using StatusSourcesTest = StatusKit;

TEST_F(StatusSourcesTest, SettingsThatSystemdResolvedHasLostAreMissing)
{
    if (const std::string reason = testsupport::daemonUnavailable(Daemon::resolved); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const ChildProcess bus = testsupport::startBus();
    ChildProcess resolved = testsupport::startDaemon(Daemon::resolved);
    writeProfile(splitTunnel);
    ChildProcess connecting = connect();
    const CommandResult whole = status();
    EXPECT_EQ(0, whole.status);
    EXPECT_THAT(whole.output, HasSubstr("\nDNS        server 10.8.0.1\n"
                                        "DNS        domain corp.test\n"
                                        "DNS        default route no\n"));
    runCommand({testsupport::daemonTool("resolvectl"), "domain", "norvatun0", "other.test"});
    EXPECT_EQ("state      applied, but 1 DNS setting is missing", summary());
    runCommand({testsupport::daemonTool("resolvectl"), "revert", "norvatun0"});
    const CommandResult result = status();
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("DNS        server 10.8.0.1 (is missing)\n"
                                         "DNS        domain corp.test (is missing)\n"));
    resolved.stop();
    EXPECT_THAT(status().output,
                HasSubstr("systemd-resolved (systemd-resolved is not running, or does not know the interface)\n"));
    connecting.sendSignal(SIGKILL);
    connecting.wait();
}

TEST_F(StatusSourcesTest, EntryThatResolvconfHasLostIsMissing)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    setenv("PATH", (std::string(tools) + ":/usr/sbin:/usr/bin:/sbin:/bin").c_str(), 1);
    std::filesystem::create_directories(tools);
    std::filesystem::create_directories("/run/resolvconf/interface");
    std::ofstream(std::string(tools) + "/resolvconf") << "#!/bin/sh\ncase $1 in\n"
                                                         "-a) cat > /run/resolvconf/interface/$2;;\n"
                                                         "-d) rm -f /run/resolvconf/interface/$2;;\nesac\n";
    ASSERT_EQ(0, chmod((std::string(tools) + "/resolvconf").c_str(), 0755));
    writeProfile(splitTunnel);
    ChildProcess connecting = connect();
    const CommandResult whole = status();
    EXPECT_EQ(0, whole.status);
    EXPECT_THAT(whole.output, HasSubstr("\nDNS        server 10.8.0.1\nDNS        domain corp.test\n"));
    const std::string name = wfoal::resolvconfName("norvatun0");
    ASSERT_TRUE(std::filesystem::remove("/run/resolvconf/interface/" + name));
    const CommandResult result = status();
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("state      applied, but the DNS settings are missing\n"));
    EXPECT_THAT(result.output, HasSubstr("\nDNS        resolvconf (resolvconf has no entry " + name + ")\n"));
}

TEST_F(StatusSourcesTest, EntryThatCannotBeReadIsNamed)
{
    applyToOwnDevice(R"({"routes":[{"destination":"10.20.0.0/16"}]})");
    for (const auto& file : std::filesystem::directory_iterator("/run/vknetconfig")) {
        if (file.path().filename().string().rfind("interface-", 0) != 0 || file.path().extension() != ".journal")
            continue;
        std::string text = contentOf(file.path());
        text.resize(text.size() - 4);
        std::ofstream(file.path()) << text;
    }
    const CommandResult result = status();
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("state   only the packet filter is applied, but the entry interface-norvatun0 "
                                         "cannot be read: undo log: an entry has no end\n"));
}

// Namespaces that share the folder, and a folder that outlives a boot.
TEST_F(StatusSourcesTest, EntriesOfOthersAreLeftOut)
{
    const auto here = wfoal::currentOrigin();
    ASSERT_TRUE(here) << here.reason();
    wfoal::Origin elsewhere = *here;
    elsewhere.networkNamespace = "c999999999";
    wfoal::Origin earlier = *here;
    earlier.boot = "00000000-0000-0000-0000-000000000000";
    const auto write = [](const std::string& subject, const wfoal::Origin& origin, const std::string& head) {
        std::ofstream("/run/vknetconfig/" + subject + "@" + origin.networkNamespace + ".journal")
            << head << "interface 1 lo\nend\n";
    };
    std::filesystem::create_directories("/run/vknetconfig");
    write("interface-lo", elsewhere, wfoal::entryHead(elsewhere));
    write("interface-lo", earlier, wfoal::entryHead(earlier));
    write("interface-ppp0", elsewhere, "vknetconfig 9\n");
    EXPECT_EQ("state  nothing is applied", summary());
    write("interface-eth0", *here, "vknetconfig 9\n");
    const CommandResult result = status();
    EXPECT_EQ(1, result.status);
    EXPECT_EQ(
        "state  nothing is applied, but the entry interface-eth0 cannot be read: undo log: it has an unknown "
        "version\n",
        result.output);
}

// As a request that is being carried out; until it is closed.
UniqueFd takeTurn()
{
    UniqueFd turn(open("/run/vknetconfig/turn", O_RDWR | O_CLOEXEC));
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    EXPECT_EQ(0, fcntl(turn.get(), F_SETLK, &lock));
    return turn;
}

// Anything else would be compared with a configuration that is half installed.
TEST_F(StatusSourcesTest, RequestThatIsBeingCarriedOutIsWaitedFor)
{
    writeProfile(fullTunnel);
    ChildProcess connecting = connect();
    UniqueFd turn = takeTurn();
    const UniqueFd target(open("/tmp/status", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    ChildProcess asking({program, "status"}, target.get());
    pollfd end{asking.endDescriptor(), POLLIN, 0};
    EXPECT_EQ(0, poll(&end, 1, 500)) << "it has not waited: " << contentOf("/tmp/status");
    turn.reset();
    EXPECT_EQ(0, asking.wait());
    EXPECT_THAT(contentOf("/tmp/status"), HasSubstr("state      applied\n"));
}

TEST_F(StatusSourcesTest, RequestThatTakesTooLongIsTold)
{
    applyToOwnDevice(R"({"routes":[{"destination":"10.20.0.0/16"}]})");
    const UniqueFd turn = takeTurn();
    const CommandResult result = status();
    EXPECT_EQ(1, result.status);
    EXPECT_EQ(
        "vpnoalctl: status: a request has been changing the configuration for 10 seconds; run it again when that has "
        "ended\n",
        result.output);
}

TEST_F(StatusSourcesTest, RequestsDoNotWaitForAReader)
{
    writeProfile(fullTunnel);
    ChildProcess connecting = connect();
    ChildProcess reader({"sh", "-c", std::string("while :; do ") + program + " status > /dev/null; done"});
    connecting.sendSignal(SIGINT);
    EXPECT_EQ(0, connecting.wait());
    reader.sendSignal(SIGKILL);
    reader.wait();
    EXPECT_EQ("state  nothing is applied", summary());
}

TEST_F(StatusSourcesTest, UserWhoMayNotReadTheUndoLogIsTold)
{
    if (testsupport::isInUserNamespace()) GTEST_SKIP() << "there is no other user in this namespace";
    if (runCommand({"setpriv", "--reuid=65534", "--clear-groups", "test", "-x", program}).status != 0) {
        GTEST_SKIP() << "another user cannot run the program where it was built";
    }
    applyToOwnDevice(R"({"routes":[{"destination":"10.20.0.0/16"}]})");
    const CommandResult result = runCommand({"setpriv", "--reuid=65534", "--clear-groups", program, "status"});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("vpnoalctl: /run/vknetconfig: Permission denied; run it as root\n", result.output);
}

}  // namespace
