// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl run is killed and started again under traffic: the configuration of the killed one stays installed until
// that of the next one replaces it.
#include "AccessTraffic.h"
#include "RunKit.h"

namespace {

using namespace runkit;
using testsupport::AccessTraffic;
using testsupport::Beside;

constexpr char inTunnel[] = "198.51.100.77";
const Words bothFamilies{"wifi4", "cellular4", "wifi6", "cellular6"};
const Words ipv6Only{"wifi6", "cellular6"};

class RunTakeoverTest : public RunFixture {
protected:
    void SetUp() override
    {
        RunFixture::SetUp();
        if (IsSkipped()) return;
        writeProfile(fullTunnel);
        mTraffic = std::make_unique<AccessTraffic>("server", inTunnel);
        mTraffic->expectToBeSeen({"wifi4", "wifi6", "cellular6"});
        shell("ip route add default via 203.0.113.1 dev wwan0 metric 50");
        mTraffic->expectToBeSeen({"cellular4"});
        shell("ip route delete default dev wwan0 metric 50");
    }
    void TearDown() override
    {
        if (!IsSkipped()) mTraffic->expectToBeSeen({"wifi4", "wifi6", "cellular6"});
        mTraffic.reset();
        RunFixture::TearDown();
    }

    // A device that outlives the program, and with it the routes.
    static void makeLastingDevice() { shell("ip tuntap add mode tun norvatun0"); }
    static void removeLastingDevice() { shell("ip link delete norvatun0"); }

    static Words guestAfter(const std::string& wait)
    {
        return joined({"sh", "-c", "echo pid $$; " + wait + "; exec \"$@\"", "sh"}, guest());
    }

    /// Kills agent and command when the tunnel is up.
    static void bringUpAndKill()
    {
        LineProcess run = start({profile}, guestAfter("true"));
        ASSERT_TRUE(isApplied(run)) << run.output;
        const pid_t command = std::stoi(run.output.substr(run.output.find("pid ") + 4));
        run.sendSignal(SIGKILL);
        kill(command, SIGKILL);
        run.wait();
    }

    std::unique_ptr<AccessTraffic> mTraffic;
};

TEST_F(RunTakeoverTest, TheNextOneReplacesTheConfigurationWithoutAGap)
{
    makeLastingDevice();
    bringUpAndKill();
    const Beside beside(*mTraffic, bothFamilies);
    LineProcess next = start();
    ASSERT_TRUE(isApplied(next)) << next.output;
    beside.expectNone();
    next.end();
    removeLastingDevice();
}

// The device and its routes are gone; the guard is not.
TEST_F(RunTakeoverTest, TheGuardStaysUntilTheNextOneHasItsOwn)
{
    bringUpAndKill();
    const Beside beside(*mTraffic, ipv6Only);
    LineProcess next = start({profile}, guestAfter("sleep 0.5"));
    ASSERT_TRUE(isApplied(next)) << next.output;
    beside.expectNone();
    next.end();
}

TEST_F(RunTakeoverTest, AMoveBeforeTheTunnelIsUpIsNoGap)
{
    bringUpAndKill();
    const Beside beside(*mTraffic, ipv6Only);
    LineProcess next = start({profile}, guestAfter("sleep 2"));
    ASSERT_TRUE(next.await("pid ")) << next.output;
    shell("ip link set eth0 down");
    EXPECT_TRUE(comesTrue([] { return routes().find("198.51.100.2 via 203.0.113.1 dev wwan0") != std::string::npos; }));
    ethernetOn();
    AccessTraffic::addIpv6("eth0");
    ASSERT_TRUE(isApplied(next)) << next.output;
    beside.expectNone();
    next.end();
}

TEST_F(RunTakeoverTest, WithoutATunnelTheStaleOneGoesAtTheEnd)
{
    bringUpAndKill();
    EXPECT_THAT(shell("nft list ruleset"), HasSubstr("vknetconfig-guard-norvatun0"));
    EXPECT_EQ(0, runToEnd({profile}, {"true"}).status);
    EXPECT_EQ("", shell("nft list ruleset"));
}

TEST_F(RunTakeoverTest, ACommandThatDoesNotStartLeavesNothing)
{
    bringUpAndKill();
    std::ofstream("/tmp/no-interpreter") << "#!/no/such/interpreter\n";
    shell("chmod +x /tmp/no-interpreter");
    EXPECT_EQ(2, runToEnd({profile}, {"/tmp/no-interpreter"}).status);
    EXPECT_EQ("", shell("nft list ruleset"));
}

}  // namespace
