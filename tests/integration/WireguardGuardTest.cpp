// SPDX-License-Identifier: Apache-2.0
//
// What leaves beside the tunnel of vpnoal-wg when it takes all traffic: nothing, over neither access network and of
// neither family, whatever ends, starts or moves. Each test first sees all four kinds of packets without the tunnel.
#include <filesystem>
#include <fstream>
#include <memory>

#include "AccessTraffic.h"
#include "Daemons.h"
#include "WireguardFixture.h"

namespace {

using namespace testsupport;

const std::vector<std::string> bothFamilies{"wifi4", "cellular4", "wifi6", "cellular6"};
const std::vector<std::string> ipv6Only{"wifi6", "cellular6"};

class WireguardGuardTest : public WireguardFixture {
protected:
    void SetUp() override
    {
        WireguardFixture::SetUp();
        if (IsSkipped()) return;
        mNetwork->writeConfig("home", "0.0.0.0/0");
        mTraffic = std::make_unique<AccessTraffic>("internet", inside, "wifi", "cellular");
        expectTheControl();
        shell("ip route add default via 203.0.113.1 dev wwan0 metric 50");
        mTraffic->expectToBeSeen({"cellular4"});
        shell("ip route delete default dev wwan0 metric 50");
    }
    void TearDown() override
    {
        if (!mNetwork) return;
        EXPECT_EQ(0, vpnoalWg({"down", "home"}).status);
        expectTheControl();
        mTraffic.reset();
        WireguardFixture::TearDown();
        std::filesystem::remove("/etc/vpnwfoal/platform.conf");
    }

    void expectTheControl() const { mTraffic->expectToBeSeen({"wifi4", "wifi6", "cellular6"}); }

    static void bringUp()
    {
        WireguardFixture::bringUp();
        ASSERT_TRUE(isReached(inside));
    }

    static void killAndAwait(pid_t process)
    {
        kill(process, SIGKILL);
        EXPECT_TRUE(awaitEnd(process));
    }

    // As a service manager does it. The device goes with wireguard-go, and the routes with the device.
    void expectNothingBesideWhenBothAreKilled(const std::vector<std::string>& kinds)
    {
        bringUp();
        const Beside beside(*mTraffic, kinds);
        const pid_t running = agent();
        const pid_t carrier = wireguardGo(running);
        killAndAwait(running);
        killAndAwait(carrier);
        mTraffic->awaitMore();
        bringUp();
        beside.expectNone();
    }

    void bringUpStrictly(const std::string& lines) const
    {
        std::filesystem::create_directories("/etc/vpnwfoal");
        std::ofstream("/etc/vpnwfoal/platform.conf") << "strict = on\n";
        std::filesystem::remove("/tmp/commands");
        mNetwork->writeConfig("home", "0.0.0.0/0", lines);
        WireguardFixture::bringUp();
    }
    static void endAgentByItsWireguardGo()
    {
        const pid_t running = agent();
        ASSERT_GT(running, 0);
        // One that has lasted for a second is replaced. The next is killed once it carries, not while it starts.
        EXPECT_TRUE(comesTrue([running] {
            const CommandResult route = runCommand({"ip", "route", "get", "8.8.8.8"});
            if (route.output.find("dev norvatun0") != std::string::npos) killWireguardGo(running);
            return kill(running, 0) != 0;
        }));
    }
    void expectNothingBesideWhenTheAgentEnds(const std::string& lines) const
    {
        bringUpStrictly(lines);
        const Beside beside(*mTraffic, bothFamilies);
        endAgentByItsWireguardGo();
        mTraffic->awaitMore();
        EXPECT_THAT(shell("nft list tables"), testing::HasSubstr("table inet vknetconfig-guard-norvatun0\n"));
        bringUp();
        beside.expectNone();
    }

    static void ethernetBack()
    {
        WireguardNetwork::setAccess("eth0", true);
        AccessTraffic::addIpv6("eth0");
    }
    static bool outerRouteIsBy(const std::string& device)
    {
        return awaitSuccess("ip route get 198.51.100.2 | grep -q 'dev " + device + "'");
    }

    std::unique_ptr<AccessTraffic> mTraffic;
};

TEST_F(WireguardGuardTest, AKilledAgentAndTheNext)
{
    bringUp();
    const Beside beside(*mTraffic, bothFamilies);
    killAndAwait(agent());
    mTraffic->awaitMore();
    bringUp();
    beside.expectNone();
}

TEST_F(WireguardGuardTest, AKilledAgentAndItsWireguardGoAndTheNext)
{
    expectNothingBesideWhenBothAreKilled(ipv6Only);
}

TEST_F(WireguardGuardTest, AKilledAgentAndItsWireguardGoAndTheNextInStrictMode)
{
    std::filesystem::create_directories("/etc/vpnwfoal");
    std::ofstream("/etc/vpnwfoal/platform.conf") << "strict = on\n";
    expectNothingBesideWhenBothAreKilled(bothFamilies);
}

// With commands of the configuration the device is not made anew.
TEST_F(WireguardGuardTest, AKilledWireguardGoThatEndsItsAgentAndTheNextInStrictMode)
{
    expectNothingBesideWhenTheAgentEnds("PostUp = true\nPostDown = echo down >>/tmp/commands");
    EXPECT_EQ("down\n", contentOf("/tmp/commands")) << "once";
}

TEST_F(WireguardGuardTest, AWireguardGoThatIsKilledInItsFirstSecondAndTheNextInStrictMode)
{
    expectNothingBesideWhenTheAgentEnds("");
}

TEST_F(WireguardGuardTest, DownRemovesTheGuardThatAnAgentHasLeft)
{
    bringUpStrictly("PostDown = echo down >>/tmp/commands");
    endAgentByItsWireguardGo();
    const CommandResult down = vpnoalWg({"down", "home"});
    EXPECT_EQ(0, down.status) << down.output;
    EXPECT_EQ("", shell("nft list tables"));
    EXPECT_EQ("down\n", contentOf("/tmp/commands")) << "once";
    bringUp();
}

TEST_F(WireguardGuardTest, ANameThatTheGuardDoesNotLetLookUpIsExplained)
{
    bringUpStrictly("PostUp = true");
    endAgentByItsWireguardGo();
    std::ofstream("/etc/resolv.conf") << "nameserver 192.0.2.1\noptions timeout:1 attempts:1\n";
    mNetwork->writeConfig("home", "0.0.0.0/0", "", "vpn.example:51820");
    const CommandResult up = vpnoalWg({"up", "home"});
    EXPECT_EQ(1, up.status);
    EXPECT_THAT(up.output, testing::HasSubstr("; the strict guard that is left lets through the earlier server and "));
    EXPECT_THAT(shell("nft list tables"), testing::HasSubstr("vknetconfig-guard-norvatun0"));
    mNetwork->writeConfig("home", "0.0.0.0/0");
    bringUp();
}

TEST_F(WireguardGuardTest, WithoutStrictModeAnAgentThatEndsLeavesNoGuard)
{
    mNetwork->writeConfig("home", "0.0.0.0/0", "PostUp = true");
    bringUp();
    endAgentByItsWireguardGo();
    EXPECT_EQ("", shell("nft list tables"));
    expectTheControl();
    bringUp();
}

TEST_F(WireguardGuardTest, AKilledWireguardGoIsReplaced)
{
    bringUp();
    const Beside beside(*mTraffic, ipv6Only);
    const pid_t running = agent();
    ASSERT_TRUE(awaitSuccess("test $(ps -o etimes= -p " + std::to_string(running) + ") -ge 2")) << "it has to last";
    const pid_t carrier = wireguardGo(running);
    ASSERT_GT(carrier, 0);
    killAndAwait(carrier);
    ASSERT_TRUE(awaitSuccess("ping -n -c 1 -W 1 10.20.0.1"));
    EXPECT_EQ(running, agent());
    beside.expectNone();
}

TEST_F(WireguardGuardTest, FromWifiToCellularAndBack)
{
    bringUp();
    const Beside beside(*mTraffic, bothFamilies);
    for (int i = 0; i < 3; ++i) {
        WireguardNetwork::setAccess("eth0", false);
        EXPECT_TRUE(outerRouteIsBy("wwan0"));
        ethernetBack();
        EXPECT_TRUE(outerRouteIsBy("eth0"));
        mTraffic->awaitMore();
    }
    beside.expectNone();
    EXPECT_TRUE(isReached(inside));
}

// The link goes down while the device sleeps, and gets its addresses again when it wakes.
TEST_F(WireguardGuardTest, SuspendAndResume)
{
    if (const std::string reason = daemonUnavailable(Daemon::elogind); !reason.empty()) GTEST_SKIP() << reason;
    const std::string manager =
        "busctl --system call org.freedesktop.login1 /org/freedesktop/login1 org.freedesktop.login1.Manager ";
    const ChildProcess bus = startBus();
    const ChildProcess elogind = startDaemon(Daemon::elogind);
    const UniqueFd seen(open("/tmp/sleep", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    const ChildProcess monitor({"busctl", "--system", "monitor", "--match=type='signal',member='PrepareForSleep'"},
                               seen.get());
    bringUp();
    ASSERT_TRUE(awaitSuccess(manager + "ListInhibitors | grep -q norva-vpnagentd"));
    const Beside beside(*mTraffic, bothFamilies);
    shell(manager + "Suspend b false");
    ASSERT_TRUE(awaitSuccess("grep -q 'BOOLEAN true' /tmp/sleep"));
    WireguardNetwork::setAccess("eth0", false);
    ASSERT_TRUE(awaitSuccess("grep -q 'BOOLEAN false' /tmp/sleep"));
    EXPECT_TRUE(outerRouteIsBy("wwan0"));
    ethernetBack();
    EXPECT_TRUE(outerRouteIsBy("eth0"));
    EXPECT_TRUE(isReached(inside));
    beside.expectNone();
    EXPECT_EQ(0, vpnoalWg({"down", "home"}).status);
    bringUp();  // without the bus
}

TEST_F(WireguardGuardTest, AccessNetworksThatGetIpv6Later)
{
    AccessTraffic::removeIpv6("eth0");
    AccessTraffic::removeIpv6("wwan0");
    bringUp();
    const Beside beside(*mTraffic, bothFamilies);
    AccessTraffic::addIpv6("wwan0");
    AccessTraffic::addIpv6("eth0");
    beside.expectNone();
}

}  // namespace
