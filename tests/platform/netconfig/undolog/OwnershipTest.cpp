// SPDX-License-Identifier: Apache-2.0
//
// Several processes that configure the same interface and packet filter: what belongs to a living one is refused to the
// others, what an ended one left is adopted or removed. Black box: driver processes, judged by ip and nft.
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

const std::vector<std::string> connectSteps = {"firewall", "/tmp/filter.json", "add", "/tmp/first.json"};

class OwnershipTest : public testing::Test {
protected:
    void SetUp() override
    {
        makeInterface();
        std::ofstream("/tmp/first.json") << R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[
            {"ip":"192.168.0.0","netmask":"255.255.0.0"},{"ip":"172.16.0.0","netmask":"255.240.0.0"}]}})";
        std::ofstream("/tmp/second.json") << R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[
            {"ip":"192.168.0.0","netmask":"255.255.0.0"},{"ip":"198.51.100.0","netmask":"255.255.255.0"}]}})";
        std::ofstream("/tmp/bad.json") << R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[
            {"ip":"192.168.0.0","netmask":"255.255.0.0"},
            {"ip":"198.51.100.0","netmask":"255.255.255.0","gateway":"10.99.0.1"}]}})";
        std::ofstream("/tmp/filter.json")
            << R"({"label":"vpn.vpnoal","chainNew":"NORVA","rules":[{"operation":"append","protocol":"ICMP",)"
               R"("jumpTo":"DROP"}]})";
        std::ofstream("/tmp/other-filter.json") << R"({"label":"vpn.vpnoal","chainNew":"NORVA","rules":[]})";
        std::ofstream("/tmp/no-filter.json") << R"({"label":"vpn.vpnoal","chainDelete":"NORVA"})";
        mBefore = networkSnapshot();
    }

    void expectAllGone() const
    {
        EXPECT_EQ(networkSnapshot(), mBefore);
        EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
    }

    static std::string belongs(const char* subject, const RunningDriver& owner)
    {
        return std::string("undo log: the configuration of ") + subject + " belongs to process " +
               std::to_string(owner.pid()) + ", which is running\n";
    }

    std::string mBefore;
};

constexpr char force[] = "VKNETCONFIG_TAKE_OVER=1 ";

}  // namespace

TEST_F(OwnershipTest, NoRequestRemovesOrReplacesWhatBelongsToALivingProcess)
{
    RunningDriver owner(connectSteps);
    const std::string inForce = networkSnapshot();
    const std::string ofInterface = belongs("interface-vpn0", owner);
    const std::string ofFilter = belongs("firewall-vpn.vpnoal", owner);
    EXPECT_EQ(outputOf(driver("delete vpn0")), "vknetconfig[3]: CmDelInterfaceCfg: " + ofInterface);
    EXPECT_EQ(outputOf(driver("add /tmp/second.json")), "vknetconfig[3]: CmAddInterfaceCfg2: " + ofInterface);
    EXPECT_EQ(outputOf(driver("firewall /tmp/no-filter.json")), "vknetconfig[3]: VkFirewallFullCtrl: " + ofFilter);
    EXPECT_EQ(outputOf(driver("firewall /tmp/other-filter.json")), "vknetconfig[3]: VkFirewallFullCtrl: " + ofFilter);
    EXPECT_EQ(networkSnapshot(), inForce);
    owner.kill();
    run(driver("delete vpn0 firewall /tmp/no-filter.json"));
    expectAllGone();
}

TEST_F(OwnershipTest, ForceRemovesWhatBelongsToALivingProcessAndTheOwnerIsTold)
{
    RunningDriver owner(connectSteps, {"delete", "vpn0", "firewall", "/tmp/no-filter.json"});
    const std::string pid = std::to_string(owner.pid());
    const std::string output = outputOf(force + driver("delete vpn0 firewall /tmp/no-filter.json"));
    EXPECT_THAT(output,
                HasSubstr("vknetconfig[4]: interface-vpn0: taken from process " + pid + ", which is running\n"));
    EXPECT_THAT(output,
                HasSubstr("vknetconfig[4]: firewall-vpn.vpnoal: taken from process " + pid + ", which is running\n"));
    expectAllGone();
    EXPECT_EQ(owner.finish(), 0) << "nothing is installed any more, which is no failure";
    EXPECT_THAT(owner.output(),
                testing::ContainsRegex("vknetconfig.3.: interface-vpn0: process [0-9]+ removed the configuration"));
    EXPECT_THAT(owner.output(), testing::ContainsRegex(
                                    "vknetconfig.3.: firewall-vpn.vpnoal: process [0-9]+ removed the configuration"));
    expectAllGone();
}

TEST_F(OwnershipTest, ForceDoesNotReplaceWhatBelongsToALivingProcess)
{
    RunningDriver owner(connectSteps);
    const std::string inForce = networkSnapshot();
    EXPECT_THAT(outputOf(force + driver("add /tmp/second.json firewall /tmp/other-filter.json")),
                HasSubstr("which is running"));
    EXPECT_EQ(networkSnapshot(), inForce);
}

TEST_F(OwnershipTest, AnOwnerWhoseConfigurationWasTakenCanApplyAgain)
{
    RunningDriver owner(connectSteps, {"add", "/tmp/first.json", "delete", "vpn0"});
    run(force + driver("delete vpn0 firewall /tmp/no-filter.json"));
    RunningDriver next({"firewall", "/tmp/filter.json"});
    EXPECT_EQ(owner.finish(), 0);
    EXPECT_EQ(routesOf("vpn0"), std::vector<std::string>());
    EXPECT_THAT(outputOf("nft list tables"), HasSubstr("vpn.vpnoal")) << "that is the next process's";
}

TEST_F(OwnershipTest, ARequestAfterAnEndedProcessTakesOverItsConfiguration)
{
    run(driver("add /tmp/first.json"));
    RunningDriver next({"add", "/tmp/second.json"});
    EXPECT_THAT(routesOf("vpn0"),
                ElementsAre("192.168.0.0/16 via - metric 0 proto 119", "198.51.100.0/24 via - metric 0 proto 119"));
    EXPECT_THAT(next.output(), HasSubstr("vpn0: 2 routes installed, 1 of them new")) << "the other was adopted";
    EXPECT_THAT(outputOf(driver("delete vpn0")), HasSubstr(belongs("interface-vpn0", next)));
    next.kill();
    run(driver("delete vpn0"));
    expectAllGone();
}

TEST_F(OwnershipTest, ARefusedRequestLeavesWhatAnEndedProcessHadInstalled)
{
    run(driver("add /tmp/first.json"));
    const std::string inForce = networkSnapshot();
    RunningDriver next({"add", "/tmp/bad.json"});
    EXPECT_THAT(next.output(), HasSubstr("additionalIfRoutes[1]: cannot be added"));
    EXPECT_EQ(networkSnapshot(), inForce);
    // It still belongs to no living process: the next request of another one removes it.
    run(driver("delete nothing0"));
    expectAllGone();
}

TEST_F(OwnershipTest, ARefusedRequestOverAHalfDoneConfigurationLeavesThatAsItWas)
{
    NEEDS_STRACE();
    const std::string steps = "add /tmp/first.json add /tmp/second.json";
    const int count = callsOf(steps)["sendto"];
    run(driver("delete nothing0"));
    ASSERT_GT(count, 4);
    for (int number = 1; number <= count; ++number) {
        killBefore("sendto", number, steps);
        const std::string left = networkSnapshot();
        outputOf(driver("add /tmp/bad.json"));
        ASSERT_EQ(networkSnapshot(), left) << "killed before sendto number " << number;
        run(driver("delete nothing0"));
        expectAllGone();
    }
}

TEST_F(OwnershipTest, ALivingProcessCleansUpAfterThoseThatEndLater)
{
    RunningDriver agent({"delete", "nothing0"}, {"delete", "nothing0", "firewall", "/tmp/no-such-filter.json"});
    std::ofstream("/tmp/no-such-filter.json") << R"({"label":"absent","chainDelete":"NORVA"})";
    run(driver("add /tmp/first.json firewall /tmp/filter.json"));
    ASSERT_NE(networkSnapshot(), mBefore);
    EXPECT_EQ(agent.finish(), 0);
    expectAllGone();
}

TEST_F(OwnershipTest, ARequestForAFilterLeavesInterfacesToTheRequestThatAdoptsThem)
{
    run(driver("firewall /tmp/filter.json add /tmp/first.json"));
    const std::vector<std::string> routes = routesOf("vpn0");
    run(driver("firewall /tmp/no-filter.json"));
    EXPECT_EQ(outputOf("nft list tables"), "");
    EXPECT_EQ(routesOf("vpn0"), routes);
    run(driver("delete nothing0"));
    expectAllGone();
}

TEST_F(OwnershipTest, AProcessWhoseFirstRequestFailedForDescriptorsCleansUpWithItsNext)
{
    NEEDS_STRACE();
    std::ofstream("/tmp/absent-filter.json") << R"({"label":"absent","chainDelete":"NORVA"})";
    const std::string requests = "delete nothing0 firewall /tmp/absent-filter.json ";
    int refused = 0;
    for (const std::string call : {"openat", "socket"}) {
        for (int number = 1; number <= 20; ++number) {
            run(driver("add /tmp/first.json firewall /tmp/filter.json"));
            const std::string inject =
                "-o /dev/null -e trace=" + call + " -e inject=" + call + ":error=EMFILE:when=" + std::to_string(number);
            // The last step only shows that the process got that far: some faults end it before.
            const std::string output = outputOf(driverUnderStrace(inject, requests + requests + "add /nonexistent"));
            if (output.find("CmAddInterfaceCfg2: ") == std::string::npos) {
                run(driver(requests));
                continue;
            }
            refused += output.find("Too many open files") == std::string::npos ? 0 : 1;
            ASSERT_EQ(networkSnapshot(), mBefore) << call << " " << number << ": " << output;
            ASSERT_EQ(outputOf("ls /run/vknetconfig"), "turn\n") << call << " " << number << ": " << output;
        }
    }
    EXPECT_GT(refused, 3) << "the faults came too early or too late to prove anything";
}

TEST_F(OwnershipTest, AFilterThatAnEndedProcessLeftIsReplacedWithoutBeingRemovedFirst)
{
    NEEDS_STRACE();
    run(driver("firewall /tmp/filter.json"));
    const std::string inForce = outputOf("nft list ruleset");
    const std::string refused =
        driverUnderStrace("-o /dev/null -e trace=fsync -e inject=fsync:error=EIO", "firewall /tmp/other-filter.json");
    EXPECT_THAT(outputOf(refused), HasSubstr("VkFirewallFullCtrl: undo log: sync "));
    EXPECT_EQ(outputOf("nft list ruleset"), inForce);
    RunningDriver next({"firewall", "/tmp/other-filter.json"});
    EXPECT_THAT(outputOf("nft list ruleset"), Not(HasSubstr("drop")));
    next.kill();
    run(driver("firewall /tmp/no-filter.json"));
    expectAllGone();
}

TEST_F(OwnershipTest, TheUndoLogNamesWhatIsInstalledAndNothingEarlier)
{
    // One of two routes is replaced.
    const RunningDriver owner({"add", "/tmp/first.json", "add", "/tmp/second.json"});
    EXPECT_EQ(outputOf("grep -c '^route ' /run/vknetconfig/interface-vpn0*.journal"), "2\n");
    EXPECT_EQ(outputOf("ip route show dev vpn0 proto 119 | wc -l"), "2\n");
}

TEST_F(OwnershipTest, WhatIsInstalledAndRemovedIsLogged)
{
    EXPECT_EQ(outputOf(driver("add /tmp/first.json delete vpn0")),
              "vknetconfig[6]: vpn0: 2 routes installed, 2 of them new\n"
              "vknetconfig[6]: vpn0: configuration removed\n");
    EXPECT_EQ(outputOf(driver("delete vpn0")), "") << "nothing is installed";
    run(driver("add /tmp/first.json"));
    EXPECT_EQ(outputOf(driver("delete nothing0")),
              "vknetconfig[6]: interface-vpn0: removed the stale configuration of an ended process\n");
    expectAllGone();
}

TEST_F(OwnershipTest, AnOwnerWhoseFilesWereRemovedIsTold)
{
    RunningDriver owner({"add", "/tmp/first.json"}, {"delete", "nothing0"});
    run("rm /run/vknetconfig/interface-vpn0*");
    EXPECT_EQ(owner.finish(), 0);
    EXPECT_THAT(owner.output(), HasSubstr("vknetconfig[3]: interface-vpn0: the files of the undo log were removed\n"));
    run("ip route flush dev vpn0 proto 119");
    EXPECT_EQ(networkSnapshot(), mBefore);
}
