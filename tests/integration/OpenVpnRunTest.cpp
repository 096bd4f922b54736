// SPDX-License-Identifier: Apache-2.0
//
// OpenVPN started by 'vpnoalctl run': openvpn-hook hands the configuration to that program, which owns it.
#include <sstream>

#include "OpenVpnFixture.h"

namespace openvpntest {

using testing::HasSubstr;

class OpenVpnRunTest : public OpenVpnFixture {
protected:
    // The command of the template unit, with the test's paths.
    static Words unitsCommand()
    {
        const std::string unit = contentOf(WFOAL_SOURCE_DIR "/packaging/systemd/vpnoal-openvpn@.service.in");
        const std::size_t begin = unit.find("\nExecStart=") + 11;
        std::istringstream line(unit.substr(begin, unit.find('\n', begin) - begin));
        Words words;
        for (std::string word; line >> word;) {
            if (word == "/etc/openvpn/client") word = "/tmp";
            if (word == "%i.conf") word = "client.conf";
            if (word == "@WFOAL_OPENVPN_LINES@") word = "/tmp/openvpn.conf";
            words.push_back(word);
        }
        words.front() = program;
        return words;
    }

    void connectInAgent()
    {
        unlink(clientLog);
        mHasHook = false;  // the unit brings it
        clientWords();
        mClient = ChildProcess(unitsCommand());
        ASSERT_TRUE(waitUntil([this] { return timesConnected() != 0 || !mClient.running(); }));
        ASSERT_TRUE(waitUntil([] { return isReached("10.20.0.80"); })) << contentOf(clientLog);
    }

    /// Pings that were lost of 250, one each 10 ms, while `roam` happens.
    static int lostWhile(const std::string& roam)
    {
        const std::string output =
            shell("ping -n -q -i 0.01 -c 250 -W 1 10.20.0.80 & pinging=$!; sleep 0.5; " + roam + "; wait $pinging");
        const std::size_t at = output.find(" packets transmitted, ") + 22;
        return 250 - std::stoi(output.substr(at));
    }

    static pid_t openVpn() { return std::stoi(shell("pgrep -x -P " + sPid + " openvpn")); }
    static std::string sPid;
};

std::string OpenVpnRunTest::sPid;

TEST_F(OpenVpnRunTest, RoamingLosesNothingBesideTheTunnel)
{
    startServer("subnet", {"redirect-gateway def1"});
    expectTheControlToSeePackets();
    const int control = arrived("beside");
    connectInAgent();
    const int before = arrived("beside");
    const Sender sender;
    const int toCellular = lostWhile("ip link set eth0 down");
    EXPECT_THAT(shell("ip route get 198.51.100.2"), HasSubstr("dev wwan0"));
    const int toWifi = lostWhile(
        "ip link set eth0 up; ip -6 address flush dev eth0; ip route add default via 192.0.2.1 dev eth0 metric 100");
    EXPECT_TRUE(waitUntil([] { return shell("ip route get 198.51.100.2").find("dev eth0") != std::string::npos; }));
    // 150 ms each.
    EXPECT_LE(toCellular, 15);
    EXPECT_LE(toWifi, 15);
    EXPECT_EQ(before, arrived("beside"));
    std::printf("lost of 250 pings: %d to wwan0, %d to eth0; beside the tunnel: %d of %d; the control saw %d\n",
                toCellular, toWifi, arrived("beside") - before, sender.sent(), control);
    EXPECT_EQ(1u, timesConnected());
    disconnect();
}

TEST_F(OpenVpnRunTest, AKilledOpenVpnEndsTheAgentWhichRestores)
{
    startServer("subnet", {"redirect-gateway def1"});
    connectInAgent();
    sPid = std::to_string(mClient.pid());
    kill(openVpn(), SIGKILL);
    EXPECT_EQ(128 + SIGKILL, mClient.wait());
    shell("ip route delete 198.51.100.2 via 192.0.2.1 proto boot");  // OpenVPN's own
    EXPECT_EQ(mBefore, state());
}

}  // namespace openvpntest
