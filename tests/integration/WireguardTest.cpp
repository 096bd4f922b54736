// SPDX-License-Identifier: Apache-2.0
//
// vpnoal-wg with real wireguard-go and wg: a tunnel comes up, is held, refused, and taken down.
#include <filesystem>
#include <fstream>

#include "WireguardFixture.h"

namespace {

using namespace testsupport;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// The indented lines of a page.
std::vector<std::string> commandsOf(const std::string& page)
{
    std::ifstream lines(page);
    std::vector<std::string> commands;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("    ", 0) == 0) commands.push_back(line.substr(4));
    }
    return commands;
}

class WireguardTest : public WireguardFixture {};

TEST_F(WireguardTest, ASplitTunnelCarriesItsNetworksAlone)
{
    mNetwork->writeConfig("home", "10.20.0.0/16, 10.8.0.1/32", "MTU = 1380");
    bringUp();
    EXPECT_THAT(shell("ip route"), HasSubstr("10.20.0.0/16 dev norvatun0 proto 119"));
    EXPECT_THAT(shell("ip link show norvatun0"), HasSubstr("mtu 1380"));
    EXPECT_THAT(shell("nft list ruleset"), Not(HasSubstr("guard")));
    mNetwork->resetCounters();
    EXPECT_TRUE(isReached("10.20.0.1"));
    EXPECT_TRUE(isReached("10.8.0.1"));
    EXPECT_EQ(0U, mNetwork->packetsBeside());
    EXPECT_GT(mNetwork->packetsEncrypted(), 2U);
    EXPECT_TRUE(isReached("198.51.100.1"));
    EXPECT_EQ(1U, mNetwork->packetsBeside()) << "what is not for the tunnel is beside it, and is counted";
    const CommandResult down = vpnoalWg({"down", "home"});
    EXPECT_EQ(0, down.status);
    EXPECT_EQ("", down.output);
    expectStateAsBefore();
}

TEST_F(WireguardTest, RunHoldsTheTunnelUntilItIsInterrupted)
{
    mNetwork->writeConfig("home", "10.20.0.0/16");
    ChildProcess running({program, "run", "/etc/wireguard/home.conf"});
    ASSERT_TRUE(awaitSuccess("ping -c 1 -W 1 10.20.0.1"));
    running.sendSignal(SIGINT);
    EXPECT_EQ(0, running.wait());
    expectStateAsBefore();
}

TEST_F(WireguardTest, TheMtuFollowsThePhysicalInterface)
{
    mNetwork->writeConfig("home", "10.20.0.0/16");
    shell("ip link set eth0 mtu 1400");
    bringUp();
    EXPECT_THAT(shell("ip link show norvatun0"), HasSubstr("mtu 1320"));
}

TEST_F(WireguardTest, ANamedEndpointIsLookedUpBeforeTheTunnel)
{
    std::ofstream("/etc/hosts", std::ios::app) << "198.51.100.2 vpn.example\n";
    mNetwork->writeConfig("home", "0.0.0.0/0", "", "vpn.example:51820");
    bringUp();
    EXPECT_TRUE(isReached("10.20.0.1"));
    EXPECT_THAT(shell("ip route get 198.51.100.2"), HasSubstr("dev eth0"));
    vpnoalWg({"down", "home"});
    mNetwork->writeConfig("home", "0.0.0.0/0", "", "unknown.invalid:51820");
    const CommandResult up = vpnoalWg({"up", "home"});
    EXPECT_EQ(1, up.status);
    EXPECT_THAT(up.output, StartsWith("vpnoal-wg: unknown.invalid: "));
    expectStateAsBefore();
}

TEST_F(WireguardTest, CommandsRunInTheirOrderAroundTheTunnel)
{
    mNetwork->writeConfig("home", "10.20.0.0/16",
                          "PreUp = ip link show %i >/dev/null 2>&1 || echo before >>/tmp/order\n"
                          "PostUp = ip route | grep -q '10.20.0.0/16 dev %i' && echo \"up $(echo %i)\" >>/tmp/order\n"
                          "PostUp = echo second >>/tmp/order\n"
                          "PreDown = ip route | grep -q '10.20.0.0/16 dev %i' && echo ending >>/tmp/order\n"
                          "PostDown = ip link show %i >/dev/null 2>&1 || echo after >>/tmp/order");
    std::filesystem::remove("/tmp/order");
    bringUp();
    EXPECT_EQ("before\nup norvatun0\nsecond\n", contentOf("/tmp/order")) << "ready means that PostUp has run";
    EXPECT_EQ(0, vpnoalWg({"down", "home"}).status);
    EXPECT_EQ("before\nup norvatun0\nsecond\nending\nafter\n", contentOf("/tmp/order"));
    expectStateAsBefore();
}

TEST_F(WireguardTest, AFailedCommandEndsTheTunnelAndIsNotShown)
{
    for (const std::string key : {"PreUp", "PostUp"}) {
        mNetwork->writeConfig("home", "0.0.0.0/0", key + " = true\n" + key + " = echo secret >/dev/null; exit 3");
        const CommandResult up = vpnoalWg({"up", "home"});
        EXPECT_EQ(1, up.status);
        EXPECT_EQ("vpnoal-wg: " + key + ", command 2: exit code 3; correct the command\n", up.output);
        expectStateAsBefore();
    }
}

TEST_F(WireguardTest, ASecondTunnelIsRefusedWithTheOwnersName)
{
    mNetwork->writeConfig("home", "10.20.0.0/16");
    mNetwork->writeConfig("office", "10.30.0.0/16");
    bringUp();
    // The kernel installs the tunnel's link-local address a moment later.
    ASSERT_TRUE(awaitSuccess("ip -6 route show table local dev norvatun0 | grep -q ^local"));
    const std::string before = state();
    const std::string owner = "by process " + std::to_string(agent()) + " with /etc/wireguard/home.conf";
    for (const char* command : {"up", "run"}) {
        for (const char* name : {"home", "office"}) {
            const CommandResult second = vpnoalWg({command, name});
            EXPECT_EQ(1, second.status);
            EXPECT_EQ("vpnoal-wg: norvatun0: is up already, " + owner +
                          "; 'vpnoal-wg down /etc/wireguard/home.conf' ends it\n",
                      second.output);
        }
    }
    std::ofstream("/tmp/profile.json") << R"({"routes":[{"destination":"10.40.0.0/16"}]})";
    const CommandResult apply = runCommand({WFOAL_BUILD_DIR "/bin/vpnoalctl", "apply", "/tmp/profile.json"});
    EXPECT_EQ(1, apply.status);
    EXPECT_THAT(apply.output, HasSubstr("belongs to process " + std::to_string(agent())));
    const CommandResult down = vpnoalWg({"down", "office"});
    EXPECT_EQ(1, down.status);
    EXPECT_THAT(down.output, HasSubstr("is not up; norvatun0 is up with /etc/wireguard/home.conf"));
    EXPECT_EQ(before, state());
}

TEST_F(WireguardTest, DownWithoutUpIsAnError)
{
    mNetwork->writeConfig("home", "10.20.0.0/16");
    const CommandResult down = vpnoalWg({"down", "home"});
    EXPECT_EQ(1, down.status);
    EXPECT_THAT(down.output, StartsWith("vpnoal-wg: norvatun0: no vpnoal-wg has brought it up"));
}

TEST_F(WireguardTest, ADeviceOfAnotherProgramIsLeftAlone)
{
    mNetwork->writeConfig("home", "10.20.0.0/16");
    shell("ip tuntap add dev norvatun0 mode tun");
    const std::string before = state();
    for (int i = 0; i < 2; ++i) {
        const CommandResult up = vpnoalWg({"up", "home"});
        EXPECT_EQ(1, up.status);
        EXPECT_THAT(up.output, HasSubstr("norvatun0: exists already, and no vpnoal-wg made it"));
        EXPECT_EQ(before, state());
    }
    EXPECT_EQ(1, vpnoalWg({"down", "home"}).status);
    EXPECT_EQ(before, state());
}

TEST_F(WireguardTest, WhatIsRefusedChangesNothing)
{
    const std::string longName = "DNS = " + std::string(300, 'a');
    const std::string large = "# " + std::string(std::size_t{1} << 20, 'x');
    const std::pair<const char*, const char*> cases[] = {
        {"DNS = $(touch /tmp/hostile)", "line 4: DNS: \"$(touch\" is neither an address nor a domain name"},
        {"DNS = \"; add table inet x", "line 4: DNS: \"\";\" is neither an address nor a domain name"},
        {"Table = {\"a\":1}", "line 4: Table: \"{\"a\":1}\" is neither"},
        {"Address = `touch /tmp/hostile`", "line 4: Address: \"`touch\" is no address"},
        {"MTU = '; touch /tmp/hostile; '", "line 4: MTU: \"'; touch /tmp/hostile; '\" is no number from"},
        {"PostUp = true\x1b[2J", "line 4: holds a control character"},
        {"[Peer]\nEndpoint = $(reboot):1", "line 5: Endpoint: \"$(reboot)\" is neither an address nor the name"},
        {longName.c_str(), "line 4: DNS: the value, which may be a key and is not shown, is neither"},
        {large.c_str(), "is larger than 1 MiB"},
    };
    for (const auto& [line, error] : cases) {
        mNetwork->writeConfig("home", "10.20.0.0/16", line);
        const CommandResult up = vpnoalWg({"up", "home"});
        EXPECT_EQ(2, up.status);
        EXPECT_THAT(up.output, HasSubstr(std::string("/etc/wireguard/home.conf: ") + error));
        expectStateAsBefore();
    }
    EXPECT_FALSE(std::filesystem::exists("/tmp/hostile"));
}

TEST_F(WireguardTest, TenThousandNetworks)
{
    std::string list = "10.20.0.1/32";
    for (int i = 0; i < 9999; ++i)
        list += ",10.30." + std::to_string(i / 256) + "." + std::to_string(i % 256) + "/32";
    mNetwork->writeConfig("home", list);
    const auto begin = steady_clock::now();
    bringUp();
    const auto taken = std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
    RecordProperty("milliseconds", static_cast<int>(taken.count()));
    EXPECT_TRUE(isReached("10.20.0.1"));
    EXPECT_EQ("10000\n", shell("ip route show dev norvatun0 proto 119 | wc -l"));
    EXPECT_EQ(0, vpnoalWg({"down", "home"}).status);
    expectStateAsBefore();
}

TEST_F(WireguardTest, TableOffHasNoRoutes)
{
    mNetwork->writeConfig("home", "0.0.0.0/0", "Table = off");
    bringUp();
    EXPECT_EQ("10.8.0.0/24 proto kernel scope link src 10.8.0.2 \n", shell("ip route show dev norvatun0"));
    EXPECT_TRUE(isReached("10.8.0.1"));
}

TEST_F(WireguardTest, ANumberedTableHasTheRoutes)
{
    mNetwork->writeConfig("home", "0.0.0.0/0, 10.20.0.0/16",
                          "Table = 1234\nPostUp = ip rule add to 10.20.0.1 table 1234\n"
                          "PreDown = ip rule delete to 10.20.0.1 table 1234");
    bringUp();
    EXPECT_EQ("default dev norvatun0 scope link \n10.20.0.0/16 dev norvatun0 scope link \n",
              shell("ip route show table 1234"));
    EXPECT_TRUE(isReached("10.20.0.1"));
    EXPECT_THAT(shell("ip route get 198.51.100.1"), HasSubstr("dev eth0"));
    EXPECT_EQ(0, vpnoalWg({"down", "home"}).status);
    expectStateAsBefore();
}

TEST_F(WireguardTest, Ipv6IsLeftOutWithOneWarning)
{
    mNetwork->writeConfig("home", "0.0.0.0/0, ::/0", "Address = fd00::2/64\nDNS = fd00::1");
    const CommandResult up = vpnoalWg({"up", "home"});
    EXPECT_EQ(0, up.status);
    EXPECT_THAT(up.output,
                StartsWith("vpnoal-wg: warning: the tunnel carries IPv4 alone, the IPv6 addresses of the file "
                           "are left out; the guard rejects IPv6 beside the tunnel\n"));
}

TEST_F(WireguardTest, AFileThatOthersMayReadIsWarnedOf)
{
    mNetwork->writeConfig("home", "10.20.0.0/16");
    std::filesystem::permissions("/etc/wireguard/home.conf", std::filesystem::perms(0644));
    const CommandResult up = vpnoalWg({"up", "home"});
    EXPECT_EQ(0, up.status);
    EXPECT_THAT(up.output, StartsWith("vpnoal-wg: warning: /etc/wireguard/home.conf: others may read the keys"));
}

TEST_F(WireguardTest, TheCommandsOfThePageDoWhatItSays)
{
    mNetwork->writeConfig("home", "0.0.0.0/0");
    const auto commands = commandsOf(WFOAL_SOURCE_DIR "/docs/wireguard.md");
    ASSERT_EQ(4U, commands.size());
    std::vector<std::string> outputs;
    for (const std::string& command : commands) {
        const CommandResult result =
            runCommand({"bash", "-c", "sudo() { \"$@\"; }; PATH=" WFOAL_BUILD_DIR "/bin:$PATH; " + command});
        EXPECT_EQ(0, result.status) << command << result.output;
        outputs.push_back(result.output);
    }
    EXPECT_THAT(outputs[0], HasSubstr("routes     0.0.0.0/0"));
    EXPECT_THAT(outputs[1], HasSubstr("endpoint: 198.51.100.2:51820"));
    EXPECT_THAT(outputs[2], HasSubstr("198.51.100.2 via 192.0.2.1 dev eth0"));
    expectStateAsBefore();
}

TEST_F(WireguardTest, NoKeyIsEverPrinted)
{
    mNetwork->writeConfig("home", "0.0.0.0/0");
    const std::string key = contentOf("/etc/wireguard/home.conf").substr(25, 44);
    ASSERT_EQ('=', key.back());
    setenv("VKLOG_TARGET", "stderr", 1);
    const CommandResult up = vpnoalWg({"up", "home", "-vv"});
    EXPECT_THAT(up.output, HasSubstr("additionalIfRoutes"));
    EXPECT_THAT(up.output + vpnoalWg({"down", "home", "-vv"}).output, Not(HasSubstr(key.substr(0, 43))));
    unsetenv("VKLOG_TARGET");
}

}  // namespace
