// SPDX-License-Identifier: Apache-2.0
//
// vpnoal-wg with real wireguard-go and wg, while access networks come and go.
#include <filesystem>
#include <fstream>

#include "WireguardFixture.h"

namespace {

using namespace testsupport;
using testing::HasSubstr;
using testing::Not;

class WireguardRoamingTest : public WireguardFixture {};

TEST_F(WireguardRoamingTest, TheTunnelMovesToTheOtherNetworkAndBack)
{
    bringUpFor("0.0.0.0/0");
    mNetwork->resetCounters();
    const auto move = [](const char* interface, bool isUp, const char* through) {
        const Pulse pulse;
        WireguardNetwork::setAccess(interface, isUp);
        EXPECT_TRUE(pulse.awaitAnswers(50));
        EXPECT_THAT(shell("ip route get 198.51.100.2"), HasSubstr(std::string("dev ") + through));
        EXPECT_LT(pulse.longestGap(), beforeWireguardNotices);
        RecordProperty(std::string(through) + "Ms", pulse.longestGap());
        return pulse.unanswered();
    };
    move("eth0", false, "wwan0");
    move("eth0", true, "eth0");
    EXPECT_EQ(0U, mNetwork->packetsBeside());
    EXPECT_TRUE(isReached(inside));
    EXPECT_TRUE(awaitSuccess(
        "ping -n -c 1 -W 1 10.20.0.1 && ip netns exec server wg show wgserver endpoints | grep -q 192.0.2.10"));
    EXPECT_LT(move("wwan0", false, "eth0"), 20) << "a network that is not used may go";
    WireguardNetwork::setAccess("wwan0", true);
    EXPECT_EQ(0, vpnoalWg({"down", "home"}).status);
    EXPECT_THAT(shell("ip route; nft list ruleset"), Not(testing::AnyOf(HasSubstr("119"), HasSubstr("guard"))));
}

// The server may still send over a network that is not preferred any more. WireGuard answers there.
class WireguardLateNetworkTest : public WireguardFixture {
protected:
    void SetUp() override
    {
        WireguardFixture::SetUp();
        if (IsSkipped()) return;
        if (!testsupport::wireguardStaysOnAddresses()) GTEST_SKIP() << "this wireguard-go follows the routes";
        bringUpFor("0.0.0.0/0");
    }

    static void answerOverCellular()
    {
        std::string port = shell("wg show norvatun0 listen-port");
        port.pop_back();
        inServer("sh -c 'wg set wgserver peer $(wg show wgserver peers) endpoint 203.0.113.10:" + port + "'");
        inServer("ping -n -c 1 -W 5 10.8.0.2");
    }

    // eth0 stays the preferred one.
    static bool isAnsweredOverCellular()
    {
        EXPECT_THAT(shell("ip route get 198.51.100.2"), HasSubstr("dev eth0"));
        return inServer("wg show wgserver endpoints").find("203.0.113.10:") != std::string::npos;
    }

    static void expectShortGapAfter(const std::string& command)
    {
        std::optional<Pulse> pulse;
        bool isShown = false;
        // WireGuard may still follow the routes of the tunnel's start.
        for (int tries = 0; tries < 20 && !isShown; ++tries) {
            answerOverCellular();
            pulse.emplace();
            isShown = isAnsweredOverCellular();
        }
        EXPECT_TRUE(isShown) << "nothing is to be shown otherwise";
        shell(command);
        EXPECT_TRUE(pulse->awaitAnswers(50));
        const int gap = pulse->longestGap();
        EXPECT_LT(gap, beforeWireguardNotices);
        RecordProperty("gapMs", gap);
    }
};

TEST_F(WireguardLateNetworkTest, ItsLinkGoesDown)
{
    expectShortGapAfter("ip link set wwan0 down");
}

TEST_F(WireguardLateNetworkTest, ItLosesItsCarrier)
{
    expectShortGapAfter("ip netns exec internet ip link set cellular down");
}

TEST_F(WireguardLateNetworkTest, ItLosesItsAddress)
{
    expectShortGapAfter("ip address delete 203.0.113.10/24 dev wwan0");
}

TEST_F(WireguardLateNetworkTest, ItIsRemoved)
{
    expectShortGapAfter("ip link delete wwan0");
}

// A packet that was on its way while the tunnel moved back would have it stay for as long as the other network is
// there.
TEST_F(WireguardLateNetworkTest, ATunnelThatHasMovedBackLeavesIt)
{
    const auto answersOver = [](const std::string& address) {
        return awaitSuccess(
            "ping -n -c 1 -W 1 10.20.0.1 >/dev/null; ip netns exec server wg show wgserver endpoints | grep -q '" +
            address + ":'");
    };
    WireguardNetwork::setAccess("eth0", false);
    EXPECT_TRUE(answersOver("203.0.113.10"));
    WireguardNetwork::setAccess("eth0", true);
    EXPECT_TRUE(answersOver("192.0.2.10"));
    answerOverCellular();
    ASSERT_TRUE(isAnsweredOverCellular()) << "nothing is to be shown otherwise";
    EXPECT_TRUE(answersOver("192.0.2.10"));
}

TEST_F(WireguardRoamingTest, WgRunsAnewOnlyWhenANetworkOfItsOwnGoes)
{
    const std::string before = getenv("PATH");
    std::filesystem::create_directories("/tmp/tools");
    std::ofstream("/tmp/tools/wg") << "#!/bin/sh\n[ \"$1\" != set ] || echo \"$@\" >>/tmp/tools/calls\nPATH=" << before
                                   << " exec wg \"$@\"\n";
    shell("chmod +x /tmp/tools/wg");
    setenv("PATH", ("/tmp/tools:" + before).c_str(), 1);
    bringUpFor("0.0.0.0/0");
    setenv("PATH", before.c_str(), 1);
    for (const char* event : {"ip link add office type veth peer name desk", "ip link set desk up",
                              "ip link set office up", "ip address add 172.31.0.1/24 dev office",
                              "ip route add 172.30.0.0/16 dev norvatun0", "ip route delete 172.30.0.0/16 dev norvatun0",
                              "ip route delete 172.31.0.0/24 dev office", "ip link delete office"}) {
        shell(event);
        EXPECT_TRUE(isReached(inside));
    }
    EXPECT_EQ("", contentOf("/tmp/tools/calls"));
    shell("ip link set wwan0 down");
    EXPECT_TRUE(awaitSuccess("[ -s /tmp/tools/calls ]"));
    EXPECT_TRUE(isReached(inside));
    EXPECT_THAT(contentOf("/tmp/tools/calls"), testing::MatchesRegex("(set norvatun0 peer [^\n]*\n)+"));
    std::filesystem::remove_all("/tmp/tools");
}

}  // namespace
