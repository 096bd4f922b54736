// SPDX-License-Identifier: Apache-2.0
//
// Stale configurations that a process wants to replace: its requests for other subjects leave them alone. Black box:
// driver processes, judged by ip and nft.
#include <gmock/gmock.h>

#include <fstream>

#include "Driver.h"
#include "KernelState.h"
#include "RunningDriver.h"

using namespace testsupport;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr char keep[] = "VKNETCONFIG_KEEP=interface-vpn0,guard-vpn0,firewall-vpn.vpnoal ";

class KeptSubjectsTest : public testing::Test {
protected:
    void SetUp() override
    {
        makeInterface();
        makeInterface("phys0", "192.0.2.10/24");
        std::ofstream("/tmp/tunnel.json") << R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[
            {"ip":"0.0.0.0","netmask":"0.0.0.0"},{"ip":"172.16.0.0","netmask":"255.240.0.0"}]}})";
        std::ofstream("/tmp/split.json") << R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[
            {"ip":"172.16.0.0","netmask":"255.240.0.0"}]}})";
        std::ofstream("/tmp/server.json") << R"({"ifName":"lo","ipv4":{"additionalIfRoutes":[
            {"ip":"198.51.100.2","netmask":"255.255.255.255"}]}})";
        std::ofstream("/tmp/outer.json") << R"({"ifName":"phys0","ipv4":{"additionalIfRoutes":[
            {"ip":"198.51.100.2","netmask":"255.255.255.255","gateway":"192.0.2.1"}]}})";
        std::ofstream("/tmp/filter.json")
            << R"({"label":"vpn.vpnoal","chainNew":"NORVA","rules":[{"operation":"append","protocol":"ICMP",)"
               R"("jumpTo":"DROP"}]})";
        std::ofstream("/tmp/no-filter.json") << R"({"label":"vpn.vpnoal","chainDelete":"NORVA"})";
        mBefore = networkSnapshot();
    }

    static std::string tunnelState() { return outputOf("ip route show dev vpn0; nft -a list ruleset"); }

    void expectAllGone() const
    {
        EXPECT_EQ(networkSnapshot(), mBefore);
        EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
    }

    std::string mBefore;
};

}  // namespace

TEST_F(KeptSubjectsTest, RequestsForOtherInterfacesLeaveThemAndRemoveTheRest)
{
    run(driver("firewall /tmp/filter.json add /tmp/tunnel.json add /tmp/outer.json"));
    const std::string left = tunnelState();
    ASSERT_THAT(left, HasSubstr("guard-vpn0"));
    run(keep + driver("add /tmp/server.json delete lo"));
    EXPECT_EQ(tunnelState(), left);
    EXPECT_THAT(outputOf("ip route"), Not(HasSubstr("198.51.100.2"))) << "phys0 is not kept";
    run(driver("delete nothing0"));
    expectAllGone();
}

TEST_F(KeptSubjectsTest, TheRequestForTheInterfaceItselfReplacesThem)
{
    run(driver("add /tmp/tunnel.json"));
    RunningDriver next({"add", "/tmp/server.json", "add", "/tmp/split.json"}, {"delete", "vpn0", "delete", "lo"},
                       {"env", std::string(keep).substr(0, std::string(keep).size() - 1)});
    EXPECT_THAT(next.output(), HasSubstr("vpn0: 1 routes installed, 0 of them new")) << "it was adopted";
    EXPECT_THAT(routesOf("vpn0"), ElementsAre("172.16.0.0/12 via - metric 0 proto 119"));
    EXPECT_EQ(outputOf("nft list tables"), "");
    next.kill();
    run(driver("delete vpn0"));
    expectAllGone();
}

TEST_F(KeptSubjectsTest, ARemovalOfOneIsLeftToTheRequestThatReplacesIt)
{
    RunningDriver owner({"firewall", "/tmp/filter.json", "add", "/tmp/tunnel.json"},
                        {"delete", "vpn0", "firewall", "/tmp/no-filter.json"},
                        {"env", std::string(keep).substr(0, std::string(keep).size() - 1)});
    const std::string installed = tunnelState();
    EXPECT_EQ(owner.finish(), 0);
    EXPECT_EQ(tunnelState(), installed);
    EXPECT_THAT(owner.output(), HasSubstr("vknetconfig[6]: interface-vpn0: kept, as it is to be replaced\n"));
    EXPECT_THAT(owner.output(), HasSubstr("vknetconfig[6]: firewall-vpn.vpnoal: kept, as it is to be replaced\n"));
    run(driver("delete nothing0"));
    expectAllGone();
}

TEST_F(KeptSubjectsTest, AGuardAloneOutlivesTheRemovalOfItsInterface)
{
    for (const bool isOwned : {true, false}) {
        RunningDriver owner({"firewall", "/tmp/filter.json", "add", "/tmp/tunnel.json"},
                            {"delete", "vpn0", "firewall", "/tmp/no-filter.json"},
                            {"env", "VKNETCONFIG_KEEP=guard-vpn0"});
        const std::string guard = outputOf("nft -a list table inet vknetconfig-guard-vpn0");
        ASSERT_THAT(guard, HasSubstr("reject"));
        if (isOwned) {
            EXPECT_EQ(owner.finish(), 0);
            EXPECT_THAT(owner.output(), HasSubstr("vknetconfig[6]: guard-vpn0: kept, as it is to be replaced\n"));
        } else {
            owner.kill();
            run("VKNETCONFIG_KEEP=guard-vpn0 " + driver("delete vpn0"));
        }
        EXPECT_EQ(outputOf("nft -a list ruleset"), guard);
        EXPECT_THAT(routesOf("vpn0"), ElementsAre());
        run(driver("delete vpn0"));
        expectAllGone();
    }
}

TEST_F(KeptSubjectsTest, ANameThatOnlyBeginsAlikeIsNotKept)
{
    run(driver("add /tmp/split.json"));
    run("VKNETCONFIG_KEEP=interface-vpn01,interface-vpn " + driver("add /tmp/server.json"));
    EXPECT_THAT(routesOf("vpn0"), ElementsAre());
    run(driver("delete lo"));
    expectAllGone();
}
