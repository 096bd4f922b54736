// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl status with the real platform and a real kernel, whose state is changed by hand.
#include <unistd.h>

#include "StatusKit.h"

namespace {

using StatusCommandTest = StatusKit;

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

}  // namespace
