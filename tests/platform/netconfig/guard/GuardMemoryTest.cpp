// SPDX-License-Identifier: Apache-2.0
//
// Requests with a guard when memory runs out: at whichever allocation it does, in the library or below it, the request
// is refused and nothing has changed. All traffic is never in the tunnel without its guard.
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "FailingMalloc.h"
#include "KernelState.h"
#include "VkNetConfigLib.h"

using namespace testsupport;
using testing::HasSubstr;

namespace {

constexpr char full[] = R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[{"ip":"0.0.0.0","netmask":"0.0.0.0"}]}})";
constexpr char split[] =
    R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[{"ip":"192.168.0.0","netmask":"255.255.0.0"}]}})";

// How many allocations fail at least before a request succeeds.
constexpr int fewest = 50;

std::string state()
{
    return outputOf("ip -4 route; nft list ruleset");
}

// Lets the first, second, third ... allocation of a request fail until it succeeds; each failure leaves `expected`.
int sweep(const std::string& expected)
{
    for (int failures = 0;; ++failures) {
        testing::internal::CaptureStderr();
        failMalloc(failures + 1);
        const int result = CmAddInterfaceCfg2(full);
        failMalloc(0);
        const std::string log = testing::internal::GetCapturedStderr();
        if (result == 0 || testing::Test::HasFailure()) return failures;
        EXPECT_EQ(state(), expected) << failures + 1 << ": " << log;
    }
}

class GuardMemoryTest : public testing::Test {
protected:
    void SetUp() override
    {
        setenv("VKLOG_TARGET", "stderr", 1);
        setenv("VKNETCONFIG_BYPASS", "192.0.2.0/24 2001:db8::/33", 1);
        std::filesystem::create_directories("/etc/vpnwfoal");
        std::ofstream("/etc/vpnwfoal/platform.conf") << "strict = on\nbypass = 2001:db8:1::/48 # ours\n";
        makeInterface();
        mBefore = state();
    }

    std::string mBefore;
};

}  // namespace

TEST_F(GuardMemoryTest, TheFirstRequestIsAppliedWholeOrNotAtAll)
{
    EXPECT_GT(sweep(mBefore), fewest);
    EXPECT_THAT(state(), HasSubstr("ip6 daddr 2001:db8:1::/48 accept"));
    EXPECT_THAT(state(), HasSubstr("reject with icmpx admin-prohibited"));
    EXPECT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    EXPECT_EQ(state(), mBefore);
    EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
}

TEST_F(GuardMemoryTest, AReplacementThatFailsKeepsWhatIsInstalled)
{
    ASSERT_EQ(CmAddInterfaceCfg2(split), 0);
    EXPECT_GT(sweep(state()), fewest);
    EXPECT_THAT(state(), HasSubstr("reject with icmpx admin-prohibited"));
    EXPECT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    EXPECT_EQ(state(), mBefore);
}

TEST_F(GuardMemoryTest, RemovalNeverLeavesTheRoutesWithoutTheGuard)
{
    ASSERT_EQ(CmAddInterfaceCfg2(full), 0);
    int failures = 0;
    for (int result = -1; result != 0; ++failures) {
        failMalloc(failures + 1);
        result = CmDelInterfaceCfg("vpn0");
        failMalloc(0);
        const std::string now = state();
        const bool hasRoutes = now.find("proto 119") != std::string::npos;
        EXPECT_TRUE(!hasRoutes || now.find("reject") != std::string::npos) << failures;
    }
    EXPECT_GT(failures, 30);
    EXPECT_EQ(state(), mBefore);
    EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
}
