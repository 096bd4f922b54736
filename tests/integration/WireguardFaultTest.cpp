// SPDX-License-Identifier: Apache-2.0
//
// vpnoal-wg with real wireguard-go and wg: what leaves beside the tunnel, and processes that are killed.
#include <filesystem>
#include <fstream>

#include "Daemons.h"
#include "WireguardFixture.h"

namespace {

using namespace testsupport;
using testing::HasSubstr;

class WireguardFaultTest : public WireguardFixture {
protected:
    // Of the configuration "home", which a machine that is busy brings up later.
    static std::chrono::steady_clock::duration timeToComeUp()
    {
        const auto begin = std::chrono::steady_clock::now();
        bringUp();
        const auto taken = std::chrono::steady_clock::now() - begin;
        EXPECT_EQ(0, vpnoalWg({"down", "home"}).status);
        return taken;
    }
};

TEST_F(WireguardFaultTest, AFullTunnelLetsNothingBeside)
{
    runCommand({"ping", "-c", "20", "-i", "0.01", "-W", "1", inside});
    const unsigned long control = mNetwork->packetsBeside();
    EXPECT_EQ(20U, control) << "without the tunnel they leave, and are counted";
    // Of both families, and WireGuard's own packets if they ever went into the tunnel.
    shell(
        "nft 'table inet inner { counter own { }; chain out { type filter hook output priority 0; oifname norvatun0 "
        "udp "
        "dport 51820 counter name own; }; }'");
    bringUpFor("0.0.0.0/0");
    mNetwork->resetCounters();
    runCommand({"ping", "-c", "20", "-i", "0.01", "-W", "1", inside});
    runCommand({"ping", "-c", "5", "-i", "0.01", "-W", "1", "203.0.113.77"});
    EXPECT_EQ(0U, mNetwork->packetsBeside());
    EXPECT_GE(mNetwork->packetsEncrypted(), 20U);
    RecordProperty("besideBefore", static_cast<int>(control));
    const auto ownPackets = [] { return shell("nft list counter inet inner own"); };
    EXPECT_THAT(ownPackets(), HasSubstr("packets 0 "));
    shell("bash -c 'echo x >/dev/udp/10.20.0.1/51820'");
    EXPECT_THAT(ownPackets(), HasSubstr("packets 1 ")) << "what goes into the tunnel there is counted";
    shell("nft delete table inet inner");
    EXPECT_EQ(0, vpnoalWg({"down", "home"}).status);
    expectStateAsBefore();
}

TEST_F(WireguardFaultTest, AFullTunnelKeepsIpv6FromLeavingBesideIt)
{
    shell("ip address add 2001:db8:1::10/64 dev eth0");
    shell("ip -6 route add default via 2001:db8:1::1 dev eth0");
    inInternet("ip address add 2001:db8:1::1/64 dev wifi");
    ASSERT_TRUE(awaitSuccess("ping -c 1 -W 1 2001:db8:1::1"));
    mNetwork->resetCounters();
    EXPECT_TRUE(isReached("2001:db8:1::1"));
    const unsigned long control = mNetwork->packetsBeside();
    EXPECT_GE(control, 1U);
    bringUpFor("0.0.0.0/0, ::/0");
    mNetwork->resetCounters();
    const CommandResult refused = runCommand({"ping", "-c", "5", "-i", "0.01", "-W", "1", "2001:db8:1::1"});
    EXPECT_NE(0, refused.status);
    // A network that comes with IPv6 only now.
    shell("ip address add 2001:db8:2::10/64 dev wwan0");
    shell("ip -6 route add 2001:db8:3::/64 via 2001:db8:2::1 dev wwan0");
    runCommand({"ping", "-c", "5", "-i", "0.01", "-W", "1", "2001:db8:3::1"});
    EXPECT_EQ(0U, mNetwork->packetsBeside());
    EXPECT_EQ(0, vpnoalWg({"down", "home"}).status);
    EXPECT_TRUE(isReached("2001:db8:1::1"));
}

// With commands of the configuration, which may have done something with the device.
TEST_F(WireguardFaultTest, KilledWireguardGoEndsTheAgentAndRestores)
{
    bringUpFor("0.0.0.0/0", "PostUp = true");
    const pid_t running = agent();
    const pid_t carrier = wireguardGo(running);
    ASSERT_GT(carrier, 0);
    kill(carrier, SIGKILL);
    EXPECT_TRUE(awaitEnd(running));
    EXPECT_THAT(shell("cat /run/vpnoal-wg/*.log"),
                HasSubstr("vpnoal-wg: norvatun0: wireguard-go ended: killed by signal 9"));
    expectStateAsBefore();
    EXPECT_EQ(0, vpnoalWg({"up", "home"}).status);
    EXPECT_TRUE(isReached(inside));
}

TEST_F(WireguardFaultTest, KilledWireguardGoIsStartedAgain)
{
    std::filesystem::create_directories("/etc/vpnwfoal");
    for (const bool isStrict : {true, false}) {
        std::ofstream("/etc/vpnwfoal/platform.conf") << "strict = " << (isStrict ? "on" : "off") << "\n";
        bringUpFor("0.0.0.0/0");
        const pid_t running = agent();
        {
            const Pulse pulse;
            EXPECT_TRUE(pulse.awaitAnswers(150)) << "a second, in which it has proved to last";
            mNetwork->resetCounters();
            EXPECT_TRUE(killWireguardGo(running));
            EXPECT_TRUE(pulse.awaitAnswers(50));
            EXPECT_LT(pulse.longestGap(), beforeWireguardNotices);
            RecordProperty(isStrict ? "strictMs" : "restartMs", pulse.longestGap());
        }
        RecordProperty(isStrict ? "strictBeside" : "beside", static_cast<int>(mNetwork->packetsBeside()));
        EXPECT_TRUE(!isStrict || mNetwork->packetsBeside() == 0) << mNetwork->packetsBeside();
        EXPECT_EQ(running, agent());
        EXPECT_THAT(shell("ip route get 8.8.8.8"), HasSubstr("dev norvatun0"));
        EXPECT_EQ(0, vpnoalWg({"down", "home"}).status);
        expectStateAsBefore();
    }
    std::filesystem::remove("/etc/vpnwfoal/platform.conf");
}

TEST_F(WireguardFaultTest, ARemovedDeviceEndsTheAgentAndRestores)
{
    bringUpFor("10.20.0.0/16");
    const pid_t running = agent();
    shell("ip link delete norvatun0");
    EXPECT_TRUE(awaitEnd(running));
    expectStateAsBefore();
}

TEST_F(WireguardFaultTest, TheTunnelOfAKilledAgentGoesOnUntilDown)
{
    bringUpFor("0.0.0.0/0");
    const pid_t running = agent();
    mNetwork->resetCounters();
    kill(running, SIGKILL);
    EXPECT_TRUE(awaitEnd(running));
    EXPECT_TRUE(isReached(inside)) << "nothing of it has gone";
    EXPECT_EQ(0U, mNetwork->packetsBeside());
    const CommandResult down = vpnoalWg({"down", "home"});
    EXPECT_EQ(0, down.status) << down.output;
    expectStateAsBefore();
    EXPECT_EQ(1, vpnoalWg({"down", "home"}).status);
}

TEST_F(WireguardFaultTest, TheTunnelOfAKilledAgentGoesAlsoWhenItsFileIsDamaged)
{
    bringUpFor("10.20.0.0/16", "PostDown = touch /tmp/ended");
    const pid_t running = agent();
    kill(running, SIGKILL);
    EXPECT_TRUE(awaitEnd(running));
    std::ofstream("/etc/wireguard/home.conf", std::ios::app) << "Damaged\n";
    const CommandResult down = vpnoalWg({"down", "home"});
    EXPECT_EQ(0, down.status) << down.output;
    EXPECT_THAT(down.output, HasSubstr("; its PreDown and PostDown do not run"));
    EXPECT_FALSE(std::filesystem::exists("/tmp/ended"));
    expectStateAsBefore();
}

TEST_F(WireguardFaultTest, AnInterruptedUpEndsItsAgent)
{
    mNetwork->writeConfig("home", "0.0.0.0/0", "PreUp = touch /tmp/begun; until [ -e /tmp/go ]; do sleep 0.01; done");
    ChildProcess up({program, "up", "home"});
    ASSERT_TRUE(awaitSuccess("test -e /tmp/begun"));
    up.sendSignal(SIGINT);
    const std::string status = "/proc/" + std::to_string(agent()) + "/status";
    EXPECT_TRUE(awaitSuccess("test $((0x$(awk '/^ShdPnd/ { print $2 }' " + status + ") & 0x4000)) -ne 0"));
    std::ofstream("/tmp/go") << "";
    EXPECT_EQ(1, up.wait()) << "nothing is up";
    EXPECT_THAT(shell("cat /run/vpnoal-wg/*.log"), HasSubstr("the command ended before the tunnel was up"));
    expectStateAsBefore();
    EXPECT_EQ(1, vpnoalWg({"down", "home"}).status);
}

TEST_F(WireguardFaultTest, TheNextAgentTakesTheTunnelOfAKilledOne)
{
    bringUpFor("0.0.0.0/0");
    const std::string index = contentOf("/sys/class/net/norvatun0/ifindex");
    const pid_t running = agent();
    kill(running, SIGKILL);
    EXPECT_TRUE(awaitEnd(running));
    const std::string handshake = shell("wg show norvatun0 latest-handshakes");
    mNetwork->resetCounters();
    CommandResult up;
    {
        const Pulse pulse;
        up = vpnoalWg({"up", "home"});
        EXPECT_TRUE(pulse.awaitAnswers(50));
        RecordProperty("takenOverMs", pulse.longestGap());
    }
    EXPECT_EQ(0U, mNetwork->packetsBeside());
    EXPECT_EQ(0, up.status) << up.output;
    EXPECT_EQ(handshake, shell("wg show norvatun0 latest-handshakes")) << "the session goes on";
    EXPECT_TRUE(isReached(inside));
    EXPECT_EQ(0, vpnoalWg({"down", "home"}).status);
    expectStateAsBefore();
}

// Whatever is killed while the tunnel comes up or goes down, "down" leaves nothing.
TEST_F(WireguardFaultTest, KilledAtAnyTimeAndCleanedUp)
{
    mNetwork->writeConfig("home", "0.0.0.0/0");
    const auto whole = timeToComeUp();
    int left = 0;
    for (int part = 1; part <= 14; ++part) {
        ChildProcess running({program, "run", "home"});
        std::this_thread::sleep_for(whole * std::min(part, 10) / 10);
        if (part > 10) running.sendSignal(SIGTERM);
        if (part > 10) std::this_thread::sleep_for(whole * (part - 10) / 10);
        running.sendSignal(SIGKILL);
        running.wait();
        const CommandResult down = vpnoalWg({"down", "home"});
        const bool wasLeft = down.status == 0;
        EXPECT_TRUE(wasLeft || down.output.find("no vpnoal-wg has brought it up") != std::string::npos) << down.output;
        left += wasLeft ? 1 : 0;
        EXPECT_EQ(mBefore, state()) << "killed in part " << part;
    }
    EXPECT_GT(left, 2) << "some were killed in the middle";
}

TEST_F(WireguardFaultTest, CarrierKilledAtAnyTimeWhileComingUp)
{
    mNetwork->writeConfig("home", "0.0.0.0/0");
    const auto whole = timeToComeUp();
    for (int part = 1; part <= 12; ++part) {
        ChildProcess running({program, "run", "home"});
        std::this_thread::sleep_for(whole * part / 10);
        const bool wasKilled = killWireguardGo(running.pid());
        if (!wasKilled) running.sendSignal(SIGTERM);
        // One that had lasted for a second is replaced, and the next one has not.
        EXPECT_TRUE(comesTrue([&running, wasKilled] {
            if (wasKilled) killWireguardGo(running.pid());
            return !running.running();
        }));
        const int status = running.wait();
        EXPECT_TRUE(status == 1 || !wasKilled) << status;
        EXPECT_EQ(mBefore, state()) << "killed in part " << part;
    }
}

// Programs of the test in place of the tools.
class WireguardToolTest : public WireguardFixture {
protected:
    WireguardToolTest() { setenv("PATH", ("/tmp/tools:" + mPath).c_str(), 1); }
    ~WireguardToolTest() override
    {
        setenv("PATH", mPath.c_str(), 1);
        std::filesystem::remove_all("/tmp/tools");
    }

    static void replaceTool(const std::string& name, const std::string& command)
    {
        std::filesystem::create_directories("/tmp/tools");
        std::ofstream("/tmp/tools/" + name) << "#!/bin/sh\n" << command << "\n";
        std::filesystem::permissions("/tmp/tools/" + name, std::filesystem::perms(0755));
    }
    static std::string log() { return shell("cat /run/vpnoal-wg/*.log"); }

    const std::string mPath = getenv("PATH");
};

TEST_F(WireguardToolTest, OneThatFailsEndsTheTunnel)
{
    mNetwork->writeConfig("home", "0.0.0.0/0");
    const auto expectFailure = [this](const std::string& reason) {
        const CommandResult up = vpnoalWg({"up", "home"});
        EXPECT_EQ(1, up.status);
        EXPECT_THAT(up.output, HasSubstr(reason));
        expectStateAsBefore();
    };
    replaceTool("wg", "echo wrong; exit 4");
    expectFailure("wg setconf norvatun0 /dev/stdin: exit code 4: \"wrong\"; correct the configuration, or try again");
    replaceTool("wireguard-go", "exit 3");
    expectFailure("wireguard-go: exit code 3; its own line above says more");
    replaceTool("wireguard-go", "exec sleep 3600");
    expectFailure("wireguard-go: has made no device within 10 seconds; try again");
}

TEST_F(WireguardToolTest, WireguardGoThatCannotBeStartedAgainEndsTheTunnel)
{
    bringUpFor("0.0.0.0/0");
    const pid_t running = agent();
    ASSERT_TRUE(awaitSuccess("test $(ps -o etimes= -p " + std::to_string(running) + ") -ge 2")) << "it has to last";
    replaceTool("wireguard-go", "exit 3");
    kill(wireguardGo(running), SIGKILL);
    EXPECT_TRUE(awaitEnd(running));
    EXPECT_THAT(log(), HasSubstr("vpnoal-wg: wireguard-go: exit code 3"));
    expectStateAsBefore();
}

TEST_F(WireguardToolTest, AnEndpointThatCannotBeToldAgainAndAFailedLastCommandAreLogged)
{
    bringUpFor("0.0.0.0/0", "PostDown = exit 5");
    const pid_t running = agent();
    replaceTool("wg", "exit 4");
    kill(running, SIGUSR1);
    EXPECT_TRUE(awaitSuccess("grep -q 'wg set norvatun0 .*: exit code 4' /run/vpnoal-wg/*.log"));
    EXPECT_EQ(0, vpnoalWg({"down", "home"}).status);
    EXPECT_THAT(log(), HasSubstr("vpnoal-wg: PostDown, command 1: exit code 5"));
    expectStateAsBefore();
}

TEST_F(WireguardFaultTest, DnsOfTheTunnelIsAskedThroughIt)
{
    if (const std::string reason = daemonUnavailable(Daemon::resolved); !reason.empty()) GTEST_SKIP() << reason;
    const ChildProcess bus = startBus();
    ChildProcess resolved = startDaemon(Daemon::resolved);
    const ChildProcess server({"ip", "netns", "exec", "server", "dnsmasq", "--no-daemon", "--conf-file=/dev/null",
                               "--no-resolv", "--no-hosts", "--listen-address=10.20.0.1", "--bind-interfaces",
                               "--address=/intranet.corp.example/10.20.0.99"});
    mNetwork->writeConfig("home", "10.20.0.0/16", "DNS = 10.20.0.1, corp.example");
    const CommandResult up = vpnoalWg({"up", "home"});
    ASSERT_EQ(0, up.status) << up.output;
    const std::string tool = daemonTool("resolvectl");
    EXPECT_THAT(shell(tool + " dns norvatun0"), HasSubstr("10.20.0.1"));
    EXPECT_THAT(shell(tool + " domain norvatun0"), HasSubstr("corp.example"));
    EXPECT_TRUE(awaitSuccess(tool + " query intranet.corp.example | grep -q 10.20.0.99"));
    WireguardNetwork::setAccess("eth0", false);
    EXPECT_TRUE(awaitSuccess(tool + " query --cache=no intranet.corp.example | grep -q 10.20.0.99")) << "after roaming";
    resolved.stop();
    resolved = startDaemon(Daemon::resolved);
    EXPECT_TRUE(awaitSuccess(tool + " query intranet.corp.example | grep -q 10.20.0.99")) << "after its restart";
    EXPECT_EQ(0, vpnoalWg({"down", "home"}).status);
}

}  // namespace
