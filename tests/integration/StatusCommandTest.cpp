// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl status with the real platform, a real kernel and real resolvers, whose state is changed by hand.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "Daemons.h"
#include "Files.h"
#include "Isolation.h"
#include "handles/UniqueFd.h"
#include "undolog/DnsLine.h"
#include "undolog/UndoLogFiles.h"

namespace {

using testing::HasSubstr;
using testsupport::ChildProcess;
using testsupport::CommandResult;
using testsupport::contentOf;
using testsupport::Daemon;
using testsupport::runCommand;

constexpr char program[] = WFOAL_BUILD_DIR "/bin/vpnoalctl";
constexpr char profile[] = "/tmp/profile.json";
constexpr char output[] = "/tmp/output";
constexpr char tools[] = "/tmp/tools";

constexpr char fullTunnel[] = R"({
    "tunnel": { "address": "10.8.0.2/24", "peer": "10.8.0.1", "mtu": 1380 },
    "routes": [ { "destination": "default" },
                { "destination": "172.16.5.0/24", "gateway": "10.8.0.7", "metric": 20 } ],
    "filter": [ { "action": "drop", "direction": "in", "interface": "norvatun0", "protocol": "tcp",
                  "destinationPort": 22 } ]
})";

constexpr char splitTunnel[] = R"({
    "tunnel": { "address": "10.8.0.2/24", "peer": "10.8.0.1" },
    "dns": { "servers": ["10.8.0.1"], "domains": ["corp.test"] },
    "routes": [ { "destination": "10.20.0.0/16" } ]
})";

void writeProfile(const std::string& text)
{
    std::ofstream(profile) << text;
}

bool comesTrue(const std::function<bool()>& condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < end) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return condition();
}

class StatusCommandTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (testsupport::isInUserNamespace() && !UniqueFd(open("/dev/net/tun", O_RDWR | O_CLOEXEC)).valid()) {
            GTEST_SKIP() << "/dev/net/tun cannot be opened in a user namespace here";
        }
        runCommand({"ip", "link", "add", "eth0", "type", "veth", "peer", "name", "access0"});
        runCommand({"ip", "address", "add", "192.168.7.2/24", "dev", "eth0"});
        runCommand({"ip", "link", "set", "eth0", "up"});
        runCommand({"ip", "link", "set", "access0", "up"});
        runCommand({"ip", "route", "add", "default", "via", "192.168.7.1"});
    }
    void TearDown() override
    {
        for (const char* name : {"norvatun0", "eth0"})
            runCommand({"ip", "link", "delete", name});
        runCommand({"nft", "flush", "ruleset"});
        std::filesystem::remove_all("/run/vknetconfig");
        std::filesystem::remove_all("/run/resolvconf");
        std::filesystem::remove_all(tools);
    }

    // Times are replaced by "TIME", counters by "N".
    static CommandResult status(const std::vector<std::string>& options = {})
    {
        std::vector<std::string> command{program, "status"};
        command.insert(command.end(), options.begin(), options.end());
        CommandResult result = runCommand(command);
        result.output =
            std::regex_replace(result.output, std::regex(R"(\d{4}-\d\d-\d\d[ T][\d:]+([+-]\d{4})?)"), "TIME");
        result.output = std::regex_replace(result.output, std::regex(R"(\d+ packets, \d+ bytes)"), "N");
        return result;
    }
    static std::string summary()
    {
        const std::string text = status().output;
        return text.substr(0, text.find('\n'));
    }

    static ChildProcess start(std::vector<std::string> command, const std::string& word)
    {
        const UniqueFd target(open(output, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        command.insert(command.begin(), program);
        ChildProcess started(command, target.get());
        EXPECT_TRUE(comesTrue([&] { return contentOf(output).find(word) != std::string::npos || !started.running(); }));
        EXPECT_THAT(contentOf(output), HasSubstr(word));
        return started;
    }
    static ChildProcess connect() { return start({"connect", profile}, "connected"); }

    // An agent with a route to its server.
    static ChildProcess run()
    {
        writeProfile(R"({"server":"192.0.2.7","routes":[{"destination":"10.20.0.0/16"}]})");
        return start({"run", profile, "--", "sh", "-c",
                      "ip tuntap add mode tun norvatun0 && ip address add 10.8.0.2 peer 10.8.0.1/24 dev norvatun0 && "
                      "ip link set norvatun0 up && exec sleep 100"},
                     "10.20.0.0/16");
    }

    // "3 packets, 266 bytes", as ip tells it.
    static std::string sentOn(const char* interface)
    {
        const std::string text = runCommand({"ip", "-s", "-j", "link", "show", interface}).output;
        std::smatch found;
        if (!std::regex_search(text, found, std::regex(R"("tx":\{"bytes":(\d+),"packets":(\d+))"))) return "none";
        return found[2].str() + " packets, " + found[1].str() + " bytes";
    }

    static void applyToOwnDevice(const char* text)
    {
        runCommand({"ip", "tuntap", "add", "mode", "tun", "norvatun0"});
        runCommand({"ip", "address", "add", "10.8.0.2", "peer", "10.8.0.1/24", "dev", "norvatun0"});
        runCommand({"ip", "link", "set", "norvatun0", "up"});
        writeProfile(text);
        const CommandResult applied = runCommand({program, "apply", profile});
        ASSERT_EQ(0, applied.status) << applied.output;
    }
};

TEST_F(StatusCommandTest, NothingIsApplied)
{
    const CommandResult forPeople = status();
    EXPECT_EQ(3, forPeople.status);
    EXPECT_EQ("state  nothing is applied\n", forPeople.output);
    const CommandResult forMachines = status({"--json"});
    EXPECT_EQ(3, forMachines.status);
    EXPECT_EQ(
        R"({"state":"none","summary":"nothing is applied","faults":[],"notes":[],"interfaces":[],"filters":[],"guards":[]})"
        "\n",
        forMachines.output);
    EXPECT_FALSE(std::filesystem::exists("/run/vknetconfig")) << "nothing is made";
}

TEST_F(StatusCommandTest, AllOfALiveTunnelIsThere)
{
    writeProfile(fullTunnel);
    ChildProcess connecting = connect();
    const std::string owner = std::to_string(connecting.pid());
    const CommandResult forPeople = status();
    EXPECT_EQ(0, forPeople.status);
    EXPECT_EQ(
        "state      applied\n"
        "owner      process " +
            owner +
            " (vpnoalctl), since TIME\n"
            "interface  norvatun0, MTU 1380\n"
            "received   N\n"
            "sent       N\n"
            "address    10.8.0.2/24\n"
            "route      0.0.0.0/1 via 10.8.0.1\n"
            "           128.0.0.0/1 via 10.8.0.1\n"
            "           172.16.5.0/24 via 10.8.0.7 metric 20\n"
            "filter     table vpn.vpnoal, 4 rules\n"
            "guard      table vknetconfig-guard-norvatun0, 13 rules\n"
            "           rejects IPv6 beside norvatun0\n",
        forPeople.output);
    const CommandResult forMachines = status({"--json"});
    EXPECT_EQ(0, forMachines.status);
    EXPECT_THAT(forMachines.output, HasSubstr(R"({"state":"applied","summary":"applied","faults":[],"notes":[],)"));
    EXPECT_THAT(forMachines.output, HasSubstr(R"("owner":{"state":"running","process":)" + owner +
                                              R"(,"program":"vpnoalctl","since":"TIME"})"));
    EXPECT_THAT(
        forMachines.output,
        HasSubstr(R"({"dst":"172.16.5.0/24","gateway":"10.8.0.7","dev":"norvatun0","metric":20,"present":true})"));
    EXPECT_THAT(forMachines.output, HasSubstr(R"("dev":"norvatun0","rejects":["ipv6"],"bypass":[],"connections":[]})"));
    connecting.stop();
    EXPECT_EQ("state  nothing is applied", summary());
}

TEST_F(StatusCommandTest, CountersAreThoseOfTheKernel)
{
    writeProfile(fullTunnel);
    ChildProcess connecting = connect();
    runCommand({"nft", "insert", "rule", "inet", "vpn.vpnoal", "_output", "ip", "daddr", "198.51.100.1", "counter"});
    runCommand({"ping", "-c", "2", "-i", "0.01", "-W", "1", "198.51.100.1"});
    EXPECT_THAT(runCommand({program, "status"}).output,
                HasSubstr("filter     table vpn.vpnoal, 5 rules\n           2 packets, 168 bytes\n"));
    EXPECT_THAT(runCommand({program, "status", "--json"}).output,
                HasSubstr(R"("rules":5,"counted":{"packets":2,"bytes":168}})"));
    connecting.stop();

    // The tunnel carries nothing here; the physical interface does.
    ChildProcess running = run();
    runCommand({"ping", "-c", "2", "-i", "0.01", "-W", "1", "192.168.7.1"});
    EXPECT_TRUE(comesTrue([] {
        const std::string before = sentOn("eth0");
        const std::string shown = runCommand({program, "status"}).output;
        return before == sentOn("eth0") && before.rfind("0 ", 0) != 0 && shown.find(before) != std::string::npos;
    })) << sentOn("eth0");
    running.stop();
}

TEST_F(StatusCommandTest, RoutesRemovedByHandAreMissing)
{
    writeProfile(fullTunnel);
    ChildProcess connecting = connect();
    runCommand({"ip", "route", "del", "128.0.0.0/1"});
    EXPECT_EQ("state      applied, but 1 route is missing", summary());
    runCommand({"ip", "route", "del", "172.16.5.0/24"});
    const CommandResult result = status();
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("state      applied, but 2 routes are missing\n"));
    EXPECT_THAT(result.output, HasSubstr("route      128.0.0.0/1 via 10.8.0.1 (is missing)\n"
                                         "           172.16.5.0/24 via 10.8.0.7 metric 20 (is missing)\n"
                                         "           0.0.0.0/1 via 10.8.0.1\n"));
    runCommand({"ip", "route", "add", "128.0.0.0/1", "via", "10.8.0.1"});
    EXPECT_EQ("state      applied, but 2 routes are missing", summary()) << "this one is not the platform's";
}

TEST_F(StatusCommandTest, DeviceThatIsDownHasLostItsRoutes)
{
    writeProfile(fullTunnel);
    ChildProcess connecting = connect();
    runCommand({"ip", "link", "set", "norvatun0", "down"});
    EXPECT_EQ("state      applied, but norvatun0 is down and 3 routes are missing", summary());
}

TEST_F(StatusCommandTest, TablesDeletedByHandAreMissing)
{
    writeProfile(fullTunnel);
    ChildProcess connecting = connect();
    runCommand({"nft", "delete", "table", "inet", "vpn.vpnoal"});
    EXPECT_EQ("state      applied, but the packet filter is missing", summary());
    runCommand({"nft", "add", "table", "inet", "vpn.vpnoal"});
    EXPECT_EQ("state      applied, but the packet filter is another program's", summary());
    runCommand({"nft", "flush", "chain", "inet", "vknetconfig-guard-norvatun0", "_output"});
    EXPECT_EQ("state      applied, but the packet filter is another program's and the guard has lost its rules",
              summary());
    runCommand({"nft", "delete", "table", "inet", "vknetconfig-guard-norvatun0"});
    const CommandResult result = status();
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("\nguard      table vknetconfig-guard-norvatun0, 0 rules (is missing)\n"));
}

TEST_F(StatusCommandTest, GuardWhoseLastRuleWasDeletedRejectsNothing)
{
    writeProfile(fullTunnel);
    ChildProcess connecting = connect();
    constexpr char guard[] = "vknetconfig-guard-norvatun0";
    const std::string rules = runCommand({"nft", "-a", "list", "chain", "inet", guard, "_output"}).output;
    std::smatch reject;
    ASSERT_TRUE(std::regex_search(rules, reject, std::regex(R"(\n\t*reject with icmpx[^\n]* # handle (\d+))")))
        << rules;
    runCommand({"nft", "delete", "rule", "inet", guard, "_output", "handle", reject[1].str()});
    EXPECT_EQ("state      applied, but the guard has lost its rules", summary());
}

TEST_F(StatusCommandTest, OwnerThatHasEndedIsTold)
{
    applyToOwnDevice(R"({"routes":[{"destination":"10.20.0.0/16"}]})");
    CommandResult result = status();
    EXPECT_EQ(0, result.status);
    const std::regex told(R"([^]*owner +process (\d+), since TIME, which has ended\n[^]*\n)"
                          R"(the owner, process \1, has ended; the next request or 'vpnoalctl restore' removes it\n)");
    EXPECT_TRUE(std::regex_match(result.output, told)) << result.output;
    EXPECT_THAT(status({"--json"}).output, HasSubstr(R"("owner":{"state":"ended","process":)"));

    // A later process may have got the number.
    for (const auto& file : std::filesystem::directory_iterator("/run/vknetconfig")) {
        if (file.path().extension() == ".lock") std::ofstream(file.path()) << getpid() << "\n";
    }
    result = status();
    EXPECT_THAT(result.output, HasSubstr("the owner, process " + std::to_string(getpid()) + ", has ended; "));

    EXPECT_EQ(0, runCommand({program, "restore"}).status);
    EXPECT_EQ("state  nothing is applied", summary());
}

TEST_F(StatusCommandTest, KilledTunnelLeavesEntriesOfADeviceThatIsGone)
{
    writeProfile(fullTunnel);
    ChildProcess connecting = connect();
    connecting.sendSignal(SIGKILL);
    connecting.wait();
    const CommandResult result = status();
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("state      applied, but the interface norvatun0 is gone\n"));
    EXPECT_THAT(result.output, HasSubstr(", has ended; the next request or 'vpnoalctl restore' removes it\n"));
}

TEST_F(StatusCommandTest, RoutesThroughPhysicalInterfacesAreShown)
{
    ChildProcess running = run();
    const CommandResult result = status();
    EXPECT_EQ(0, result.status);
    EXPECT_THAT(result.output, HasSubstr("\nroute      10.20.0.0/16 via 10.8.0.1\ninterface  eth0, MTU 1500\n"));
    EXPECT_THAT(result.output, HasSubstr("\naddress    192.168.7.2/24\nroute      192.0.2.7 via 192.168.7.1"));
    EXPECT_THAT(status({"--json"}).output, HasSubstr(R"({"dst":"192.0.2.7","gateway":"192.168.7.1","dev":"eth0",)"));
    running.sendSignal(SIGSTOP);  // else it would install the route again
    runCommand({"ip", "route", "del", "192.0.2.7", "dev", "eth0"});
    EXPECT_EQ("state      applied, but 1 route of eth0 is missing", summary());
    running.sendSignal(SIGCONT);
    running.stop();
}

TEST_F(StatusCommandTest, SettingsThatSystemdResolvedHasLostAreMissing)
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

TEST_F(StatusCommandTest, EntryThatResolvconfHasLostIsMissing)
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

TEST_F(StatusCommandTest, EntryThatCannotBeReadIsNamed)
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
TEST_F(StatusCommandTest, EntriesOfOthersAreLeftOut)
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

// Anything else would be compared with a configuration that is half installed.
TEST_F(StatusCommandTest, RequestThatIsBeingCarriedOutIsWaitedFor)
{
    writeProfile(fullTunnel);
    ChildProcess connecting = connect();
    const UniqueFd turn(open("/run/vknetconfig/turn", O_RDWR | O_CLOEXEC));
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    ASSERT_EQ(0, fcntl(turn.get(), F_SETLK, &lock));
    const UniqueFd target(open("/tmp/status", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    ChildProcess asking({program, "status"}, target.get());
    pollfd end{asking.endDescriptor(), POLLIN, 0};
    EXPECT_EQ(0, poll(&end, 1, 500)) << "it has not waited: " << contentOf("/tmp/status");
    lock.l_type = F_UNLCK;
    ASSERT_EQ(0, fcntl(turn.get(), F_SETLK, &lock));
    EXPECT_EQ(0, asking.wait());
    EXPECT_THAT(contentOf("/tmp/status"), HasSubstr("state      applied\n"));
}

TEST_F(StatusCommandTest, RequestsDoNotWaitForAReader)
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

TEST_F(StatusCommandTest, UserWhoMayNotReadTheUndoLogIsTold)
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
