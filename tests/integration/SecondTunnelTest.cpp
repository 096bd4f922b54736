// SPDX-License-Identifier: Apache-2.0
//
// One tunnel at a time: while OpenVPN or vpnoal-wg has one, the next is refused, its owner is named, and the first goes
// on. With the real programs.
#include <sys/stat.h>

#include "OpenVpnFixture.h"

namespace openvpntest {

using testing::HasSubstr;
using testsupport::CommandResult;

class SecondTunnelTest : public OpenVpnFixture {
protected:
    void SetUp() override
    {
        OpenVpnFixture::SetUp();
        if (IsSkipped()) return;
        startServer("subnet", {"redirect-gateway def1"}, false);
    }
    void TearDown() override
    {
        shell("if test -f /etc/wireguard/home.conf; then rm -r /etc/wireguard; fi");
        OpenVpnFixture::TearDown();
    }

    static bool hasWireguard()
    {
        return runCommand({"sh", "-c", "command -v wg && command -v wireguard-go"}).status == 0;
    }

    // A peer that does not answer: the tunnel is up all the same.
    static void writeWireguardConfig()
    {
        shell(
            "set -e; rm -f /etc/wireguard; mkdir /etc/wireguard; umask 077; { echo '[Interface]'; echo \"PrivateKey = "
            "$(wg genkey)\"; "
            "echo 'Address = 10.9.0.2/24'; echo '[Peer]'; echo \"PublicKey = $(wg genkey | wg pubkey)\"; "
            "echo 'AllowedIPs = 10.30.0.0/16'; echo 'Endpoint = 198.51.100.2:51820'; } >/etc/wireguard/home.conf");
    }
    static CommandResult wireguardUp() { return runCommand({WFOAL_BUILD_DIR "/bin/vpnoal-wg", "up", "home"}); }

    /// Another OpenVPN in an agent, to its end.
    CommandResult secondInAgent()
    {
        mHasHook = false;  // the unit brings it
        clientWords();
        shell("sed 's/client.log/second.log/' /tmp/client.conf >/tmp/second.conf");
        unlink("/tmp/second.log");
        Words words = unitsCommand();
        for (std::string& word : words) {
            if (word == "client.conf") word = "second.conf";
        }
        words.insert(words.begin(), {"timeout", "30"});
        return runCommand(words);
    }

    void expectTheFirstToGoOn(const std::string& connected)
    {
        EXPECT_EQ(connected, state());
        EXPECT_TRUE(isReached("10.20.0.80"));
        EXPECT_EQ(1u, timesConnected());
        EXPECT_THAT(shell("nft list tables"), HasSubstr("vknetconfig-guard-norvatun0"));
    }

    static std::string refusal(const char* who, pid_t owner)
    {
        return std::string(who) + ": norvatun0: cannot be configured: it belongs to process " + std::to_string(owner) +
               ", which is running; end that process, or remove the configuration with 'vpnoalctl restore --force'\n";
    }
    static std::string refusalOfUse(const char* who, pid_t user)
    {
        return std::string(who) + ": norvatun0: is in use by process " + std::to_string(user) +
               " (openvpn); end that process\n";
    }
};

TEST_F(SecondTunnelTest, OpenVpnInAnAgentWhileAnotherIsInOne)
{
    connectInAgent();
    const std::string connected = state();
    const CommandResult second = secondInAgent();
    EXPECT_EQ(1, second.status);
    EXPECT_THAT(second.output, HasSubstr(refusal("vpnoalctl", mClient.pid())));
    EXPECT_EQ("", contentOf("/tmp/second.log")) << "it was not started";
    expectTheFirstToGoOn(connected);
    disconnect();
}

TEST_F(SecondTunnelTest, OpenVpnInAnAgentWhileAnotherRunsByItself)
{
    connect();
    const std::string connected = state();
    const CommandResult second = secondInAgent();
    EXPECT_EQ(1, second.status);
    EXPECT_THAT(second.output, HasSubstr(refusalOfUse("vpnoalctl", mClient.pid())));
    EXPECT_EQ("", contentOf("/tmp/second.log")) << "it was not started";
    expectTheFirstToGoOn(connected);
    mHasHook = true;
    disconnect();
}

// Nothing runs before OpenVPN opens the device, so it is the kernel that refuses.
TEST_F(SecondTunnelTest, OpenVpnByItselfWhileAnotherIsInAnAgent)
{
    connectInAgent();
    const std::string connected = state();
    mHasHook = true;
    clientWords();
    shell("sed 's/client.log/second.log/' /tmp/client.conf >/tmp/second.conf");
    EXPECT_NE(0, runCommand({"timeout", "30", "openvpn", "--config", "/tmp/second.conf"}).status);
    EXPECT_THAT(contentOf("/tmp/second.log"), HasSubstr("Cannot ioctl TUNSETIFF norvatun0: Device or resource busy"));
    expectTheFirstToGoOn(connected);
    disconnect();
}

TEST_F(SecondTunnelTest, WireguardWhileOpenVpnIsInAnAgent)
{
    if (!hasWireguard()) GTEST_SKIP() << "wg or wireguard-go is not installed";
    connectInAgent();
    writeWireguardConfig();
    const std::string connected = state();
    const CommandResult second = wireguardUp();
    EXPECT_EQ(1, second.status);
    EXPECT_THAT(second.output, HasSubstr(refusal("vpnoal-wg", mClient.pid())));
    expectTheFirstToGoOn(connected);
    disconnect();
}

TEST_F(SecondTunnelTest, WireguardWhileOpenVpnRunsByItself)
{
    if (!hasWireguard()) GTEST_SKIP() << "wg or wireguard-go is not installed";
    connect();
    writeWireguardConfig();
    const std::string connected = state();
    const CommandResult second = wireguardUp();
    EXPECT_EQ(1, second.status);
    EXPECT_THAT(second.output, HasSubstr(refusalOfUse("vpnoal-wg", mClient.pid())));
    expectTheFirstToGoOn(connected);
    disconnect();
}

// Its lock still names the configuration, and OpenVPN has made the device since.
TEST_F(SecondTunnelTest, KilledWireguardWhileOpenVpnRunsByItself)
{
    if (!hasWireguard()) GTEST_SKIP() << "wg or wireguard-go is not installed";
    writeWireguardConfig();
    ASSERT_EQ(0, wireguardUp().status);
    const std::string named = wireguardUp().output;
    const pid_t agent = std::stoi(named.substr(named.find("by process ") + 11));
    const pid_t carrier = std::stoi(shell("pgrep -x -P " + std::to_string(agent) + " wireguard-go"));
    kill(agent, SIGKILL);
    kill(carrier, SIGKILL);
    ASSERT_TRUE(comesTrue([] { return shell("ip -br link show type tun").empty(); }));
    connect();
    const std::string connected = state();
    for (const char* command : {"up", "down"}) {
        const CommandResult refused = runCommand({WFOAL_BUILD_DIR "/bin/vpnoal-wg", command, "home"});
        EXPECT_EQ(1, refused.status);
        EXPECT_THAT(refused.output, HasSubstr(refusalOfUse("vpnoal-wg", mClient.pid())));
        expectTheFirstToGoOn(connected);
    }
    disconnect();
    EXPECT_EQ(0, runCommand({WFOAL_BUILD_DIR "/bin/vpnoal-wg", "down", "home"}).status);
}

TEST_F(SecondTunnelTest, OpenVpnInAnAgentWhileWireguardIsUp)
{
    if (!hasWireguard()) GTEST_SKIP() << "wg or wireguard-go is not installed";
    writeWireguardConfig();
    const CommandResult up = wireguardUp();
    ASSERT_EQ(0, up.status) << up.output;
    const std::string connected = state();
    const CommandResult second = secondInAgent();
    EXPECT_EQ(1, second.status);
    EXPECT_THAT(second.output, HasSubstr("vpnoalctl: norvatun0: cannot be configured: it belongs to process "));
    EXPECT_EQ("", contentOf("/tmp/second.log")) << "it was not started";
    EXPECT_EQ(connected, state());
    EXPECT_EQ(0, runCommand({WFOAL_BUILD_DIR "/bin/vpnoal-wg", "down", "home"}).status);
}

}  // namespace openvpntest
