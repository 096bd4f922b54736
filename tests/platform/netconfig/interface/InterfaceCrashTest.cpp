// SPDX-License-Identifier: Apache-2.0
//
// Processes that are killed, or end, with an interface configuration half or fully installed; and what the next process
// makes of it. Black box: a driver process is ended before each of its system calls in turn.
#include <gmock/gmock.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <map>
#include <string>

#include "Driver.h"
#include "KernelState.h"
#include "handles/Stdio.h"

using namespace testsupport;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class InterfaceCrashTest : public testing::Test {
protected:
    void SetUp() override
    {
        makeInterface("vpn0", "");
        makeInterface("vpn1");
        run("ip route add 20.0.0.0/24 dev vpn1 metric 5");
        std::ofstream("/tmp/first.json") << requestWithRoutes(2500, R"("ip":"0x0200080a","netmask":"0x00ffffff",)");
        std::ofstream("/tmp/second.json") << R"({"ifName":"vpn0","ipv4":{"gateway":"0x00000000","additionalIfRoutes":[
            {"ip":"192.168.0.0","netmask":"255.255.0.0","gateway":null,"metric":5}]}})";
        mBefore = networkSnapshot();
    }

    void expectAllGone() const
    {
        EXPECT_EQ(networkSnapshot(), mBefore);
        EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
    }

    std::string mBefore;
};

}  // namespace

TEST_F(InterfaceCrashTest, KilledAtAnyStepTheNextProcessBringsEverythingBack)
{
    NEEDS_STRACE();
    const std::string steps = "add /tmp/first.json add /tmp/second.json delete vpn0";
    const std::map<std::string, int> calls = callsOf(steps);
    expectAllGone();
    for (const char* needed : {"fcntl", "fsync", "renameat", "unlinkat", "sendto"}) {
        ASSERT_EQ(calls.count(needed), 1U) << needed;
    }
    int changed = 0;
    for (const auto& [call, count] : calls) {
        for (int number = 1; number <= count; ++number) {
            killBefore(call, number, steps);
            changed += networkSnapshot() == mBefore ? 0 : 1;
            run(driver("delete nothing0"));
            if (networkSnapshot() == mBefore && outputOf("ls /run/vknetconfig") == "turn\n") continue;
            FAIL() << "killed before " << call << " number " << number << ":\n"
                   << outputOf("ip -d -4 route show table all; ip -d address; ls /run/vknetconfig");
        }
    }
    EXPECT_GT(changed, 20) << "the kills came too early or too late to prove anything";
}

TEST_F(InterfaceCrashTest, KilledWhileCleaningUpTheNextProcessGoesOn)
{
    NEEDS_STRACE();
    run(driver("add /tmp/first.json"));
    const std::string inForce = networkSnapshot();
    ASSERT_NE(inForce, mBefore);
    const std::map<std::string, int> calls = callsOf("delete nothing0");
    expectAllGone();
    for (const auto& [call, count] : calls) {
        for (int number = 1; number <= count; ++number) {
            run(driver("add /tmp/first.json"));
            killBefore(call, number, "delete nothing0");
            run(driver("delete nothing0"));
            ASSERT_EQ(networkSnapshot(), mBefore) << "killed before " << call << " number " << number;
        }
    }
    expectAllGone();
}

TEST_F(InterfaceCrashTest, AnEndedProcessLeavesItsConfigurationUntilTheNextRequest)
{
    run(driver("add /tmp/second.json"));
    EXPECT_THAT(routesOf("vpn0"),
                ElementsAre("0.0.0.0/1 via - metric 0 proto 119", "128.0.0.0/1 via - metric 0 proto 119",
                            "192.168.0.0/16 via - metric 5 proto 119"));
    run(driver(""));  // loads the library and asks for nothing
    EXPECT_EQ(routesOf("vpn0").size(), 3U);
    run(driver("delete vpn0"));
    expectAllGone();
}

TEST_F(InterfaceCrashTest, ARequestThatCannotBeReadDoesNotCleanUp)
{
    run(driver("add /tmp/second.json"));
    std::ofstream("/tmp/bad.json") << "{}";
    EXPECT_THAT(outputOf(driver("add /tmp/bad.json")), HasSubstr("ifName: missing"));
    EXPECT_EQ(routesOf("vpn0").size(), 3U);
    run(driver("delete vpn0"));
    expectAllGone();
}

TEST_F(InterfaceCrashTest, ANewConfigurationStartsFromTheStateBeforeTheDeadProcess)
{
    run(driver("add /tmp/first.json"));
    run(driver("add /tmp/second.json"));
    EXPECT_EQ(routesOf("vpn0").size(), 3U);
    EXPECT_EQ(outputOf("ip -4 address show vpn0"), "");
    run(driver("delete vpn0"));
    expectAllGone();
}

TEST_F(InterfaceCrashTest, AnInterfaceMadeAnewAfterTheCrashIsNotTouched)
{
    run(driver("add /tmp/second.json"));
    run("ip link del vpn0");
    makeInterface("vpn0", "10.8.0.2/24");
    run("ip route add 192.168.0.0/16 dev vpn0 metric 5 proto 119");
    const std::string links = outputOf("ip -d link; ip -d address; ip -d route show table all");
    run(driver("delete vpn0"));
    EXPECT_EQ(outputOf("ip -d link; ip -d address; ip -d route show table all"), links);
    EXPECT_EQ(outputOf("nft list ruleset"), "") << "the guard goes by its name, whichever device it was made for";
}

TEST_F(InterfaceCrashTest, WhatALivingProcessHoldsIsRefusedNamingItUntilItIsDead)
{
    PipePtr holder(popen(("exec " + driver("add /tmp/second.json hold 2>/dev/null")).c_str(), "re"));
    ASSERT_TRUE(holder);
    char line[64] = {};
    ASSERT_NE(fgets(line, sizeof line, holder.get()), nullptr);
    const int pid = std::stoi(outputOf("cat /run/vknetconfig/interface-vpn0@*.lock"));
    ASSERT_GT(pid, 0);

    const std::string refusal = outputOf(driver("add /tmp/first.json"));
    EXPECT_THAT(refusal, HasSubstr("process " + std::to_string(pid) + ", which is running"));
    EXPECT_EQ(routesOf("vpn0").size(), 3U);
    run(driver("delete nothing0"));
    EXPECT_EQ(routesOf("vpn0").size(), 3U) << "a living process's configuration was taken for a dead one's";
    EXPECT_EQ(outputOf(driver("delete vpn0")),
              "vknetconfig[3]: CmDelInterfaceCfg: undo log: the configuration of "
              "interface-vpn0 belongs to process " +
                  std::to_string(pid) + ", which is running\n");
    EXPECT_EQ(routesOf("vpn0").size(), 3U);
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    holder.reset();  // waits until it is dead
    run(driver("delete vpn0"));
    expectAllGone();
}
