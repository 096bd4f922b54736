// SPDX-License-Identifier: Apache-2.0
//
// A process killed with DNS of a link half or fully set in the real systemd-resolved, and what the next one makes of
// it.
#include <gmock/gmock.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>

#include "ComesTrue.h"
#include "Daemons.h"
#include "Driver.h"
#include "KernelState.h"
#include "RunningDriver.h"
#include "handles/Stdio.h"

using namespace testsupport;
using testing::HasSubstr;

namespace {

class InterfaceDnsCrashTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (const std::string reason = daemonUnavailable(Daemon::resolved); !reason.empty()) GTEST_SKIP() << reason;
        mBus = startBus();
        mResolved = startDaemon(Daemon::resolved);
        makeInterface();
        run(daemonTool("resolvectl") + " dns vpn0 10.9.0.1");
        run(daemonTool("resolvectl") + " domain vpn0 before.example");
        std::ofstream("/tmp/dns.json") << R"({"domainsOnIfDns":["corp.example"],"ifName":"vpn0","ipv4":{
            "dns":["0x0100080a","0x0200080a"],
            "additionalIfRoutes":[{"ip":"192.168.0.0","netmask":"255.255.0.0","gateway":null,"metric":5}]}})";
    }

    static std::string state()
    {
        const std::string tool = daemonTool("resolvectl");
        return networkSnapshot() + outputOf(tool + " dns vpn0; " + tool + " domain vpn0; " + tool +
                                            " default-route vpn0; ls /run/vknetconfig");
    }

    static std::string servers() { return outputOf(daemonTool("resolvectl") + " dns vpn0"); }

    ChildProcess mBus;
    ChildProcess mResolved;
};

}  // namespace

TEST_F(InterfaceDnsCrashTest, KilledAtAnyStepTheNextProcessBringsTheServersBack)
{
    NEEDS_STRACE();
    const std::string steps = "add /tmp/dns.json delete vpn0";
    const std::map<std::string, int> calls = callsOf(steps);
    const std::string before = state();
    ASSERT_THAT(before, HasSubstr("10.9.0.1"));
    int changed = 0;
    for (const auto& [call, count] : calls) {
        for (int number = 1; number <= count; number += sweepStep) {
            killBefore(call, number, steps);
            changed += outputOf(daemonTool("resolvectl") + " dns vpn0").find("10.8.0.1") == std::string::npos ? 0 : 1;
            run(driver("delete nothing0"));
            ASSERT_EQ(state(), before) << "killed before " << call << " number " << number;
        }
    }
    EXPECT_GT(changed, 5) << "the kills came too early or too late to prove anything";
}

TEST_F(InterfaceDnsCrashTest, WhatIsRemovedWhileResolvedIsDownStaysInTheUndoLogUntilItAnswers)
{
    run(driver("add /tmp/dns.json delete vpn0"));
    const std::string before = state();
    run(driver("add /tmp/dns.json"));
    ASSERT_THAT(servers(), HasSubstr("10.8.0.1"));
    mResolved.stop();
    EXPECT_THAT(
        outputOf(driver("delete vpn0")),
        HasSubstr("vknetconfig[4]: the DNS settings of vpn0 are removed when systemd-resolved answers again\n"));
    EXPECT_EQ(routesOf("vpn0").size(), 0U);
    run(driver("delete nothing0"));
    mResolved = startDaemon(Daemon::resolved);
    ASSERT_THAT(servers(), HasSubstr("10.8.0.1")) << "it is to keep the settings of links over a restart";
    run(driver("delete nothing0"));
    EXPECT_EQ(state(), before);
}

TEST_F(InterfaceDnsCrashTest, ARequestWithoutDnsWhileResolvedIsDownKeepsWhatIsPending)
{
    std::ofstream("/tmp/routes.json") << requestWithRoutes(2);
    run(driver("add /tmp/dns.json"));
    mResolved.stop();
    run(driver("add /tmp/routes.json delete vpn0"));
    EXPECT_EQ(routesOf("vpn0").size(), 0U);
    mResolved = startDaemon(Daemon::resolved);
    ASSERT_THAT(servers(), HasSubstr("10.8.0.1"));
    run(driver("delete nothing0"));
    EXPECT_THAT(servers(), HasSubstr("10.9.0.1"));
    EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
}

TEST_F(InterfaceDnsCrashTest, WhatIsPendingBelongsToNoProcess)
{
    std::ofstream("/tmp/routes.json") << requestWithRoutes(2);
    run(driver("add /tmp/dns.json"));
    mResolved.stop();
    const RunningDriver remover({"delete", "vpn0"});
    run(driver("add /tmp/routes.json"));
    EXPECT_EQ(routesOf("vpn0").size(), 2U);
}

TEST_F(InterfaceDnsCrashTest, WhatAnotherProcessRemovedIsNotSetAgain)
{
    const PipePtr holder(popen(("exec " + driver("add /tmp/dns.json hold 2>/tmp/log")).c_str(), "re"));
    ASSERT_TRUE(holder);
    char line[64] = {};
    ASSERT_NE(fgets(line, sizeof line, holder.get()), nullptr);
    const int pid = std::stoi(outputOf("cat /run/vknetconfig/*.lock"));
    run("env VKNETCONFIG_TAKE_OVER=1 " + driver("delete vpn0"));
    EXPECT_THAT(servers(), HasSubstr("10.9.0.1"));
    mResolved.stop();
    std::filesystem::remove_all("/run/systemd/resolve/netif");
    mResolved = startDaemon(Daemon::resolved);
    EXPECT_TRUE(comesTrue([] { return outputOf("cat /tmp/log").find("not set again") != std::string::npos; }))
        << outputOf("cat /tmp/log") << servers();
    EXPECT_EQ(servers().find("10.8.0.1"), std::string::npos);
    ASSERT_EQ(::kill(pid, SIGKILL), 0);  // closing the pipe waits for its end
}
