// SPDX-License-Identifier: Apache-2.0
//
// What docs/wireguard.md says of wg-quick, with the same network and the same configuration.
#include <gmock/gmock.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

#include "ChildProcess.h"
#include "Shell.h"
#include "WireguardNetwork.h"

namespace {

using namespace testsupport;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::HasSubstr;

constexpr char device[] = "wgquick";

class WgQuickTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (const std::string reason = WireguardNetwork::unavailable(); !reason.empty()) GTEST_SKIP() << reason;
        mNetwork.emplace();
        mNetwork->writeConfig(device, "0.0.0.0/0");
        mIsUp = wgQuick("up") == 0;
        if (!mIsUp) GTEST_SKIP() << "wg-quick does not come up here: " << mOutput;
    }

    void TearDown() override
    {
        if (mIsUp) wgQuick("down");
        mNetwork.reset();
    }

    // wireguard-go goes on in the background, so its output must not be waited for.
    int wgQuick(const std::string& command)
    {
        const CommandResult result =
            runCommand({"sh", "-c", std::string("wg-quick ") + command + " " + device + " >/tmp/wg-quick.log 2>&1"});
        std::ifstream log("/tmp/wg-quick.log");
        mOutput.assign(std::istreambuf_iterator<char>(log), std::istreambuf_iterator<char>());
        return result.status;
    }

    // The process that has the device of this network namespace.
    static void killWireguardGo()
    {
        namespace fs = std::filesystem;
        std::error_code ignored;
        const fs::path here = fs::read_symlink("/proc/self/ns/net");
        for (const auto& entry : fs::directory_iterator("/proc")) {
            if (fs::read_symlink(entry.path() / "ns/net", ignored) != here) continue;
            std::ifstream file(entry.path() / "cmdline");
            const std::string words{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
            if (words == std::string("wireguard-go\0wgquick\0", 21)) kill(std::stoi(entry.path().filename()), SIGKILL);
        }
        ASSERT_TRUE(awaitSuccess("! ip link show wgquick 2>/dev/null"));
    }

    std::optional<WireguardNetwork> mNetwork;
    std::string mOutput;
    bool mIsUp = false;
};

TEST_F(WgQuickTest, AKilledWireguardGoLeavesRulesAndFilterAndDownRefuses)
{
    killWireguardGo();
    EXPECT_THAT(shell("ip rule"), HasSubstr("suppress_prefixlength 0"));
    EXPECT_THAT(shell("nft list tables"), HasSubstr("wg-quick"));
    mNetwork->resetCounters();
    EXPECT_EQ(0, runCommand({"ping", "-c", "1", "-W", "1", "198.51.100.1"}).status);
    EXPECT_EQ(1U, mNetwork->packetsBeside());
    EXPECT_NE(0, wgQuick("down"));
    EXPECT_THAT(mOutput, HasSubstr("is not a WireGuard interface"));
    EXPECT_EQ(0, wgQuick("up")) << "so that the end of the test can remove the rules";
}

TEST_F(WgQuickTest, Ipv6LeavesBesideAFullTunnel)
{
    shell("ip address add 2001:db8:1::10/64 dev eth0");
    inInternet("ip address add 2001:db8:1::1/64 dev wifi");
    mNetwork->resetCounters();
    EXPECT_TRUE(awaitSuccess("ping -c 1 -W 1 2001:db8:1::1"));
    EXPECT_GE(mNetwork->packetsBeside(), 1U);
}

TEST_F(WgQuickTest, ItStaysOnTheAddressThatIsGoneUntilTheNextHandshake)
{
    if (!testsupport::wireguardStaysOnAddresses()) GTEST_SKIP() << "this wireguard-go follows the routes";
    ASSERT_TRUE(awaitSuccess("ping -c 1 -W 1 10.20.0.1"));
    const auto begin = steady_clock::now();
    WireguardNetwork::setAccess("eth0", false);
    runCommand({"ping", "-c", "50", "-i", "0.1", "-W", "0.1", "10.20.0.1"});
    const bool isBack = runCommand({"ping", "-c", "1", "-W", "0.2", "10.20.0.1"}).status == 0;
    EXPECT_FALSE(isBack) << "after five seconds";
    while (runCommand({"ping", "-c", "1", "-W", "0.1", "10.20.0.1"}).status != 0) {
        if (steady_clock::now() - begin > std::chrono::seconds(60)) break;
    }
    const auto taken = std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin).count();
    RecordProperty("outageMs", static_cast<int>(taken));
    EXPECT_LT(taken, 60000);
}

}  // namespace
