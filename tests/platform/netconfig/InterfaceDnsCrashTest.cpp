// SPDX-License-Identifier: Apache-2.0
//
// A process killed with DNS of a link half or fully set in the real systemd-resolved, and what the next one makes of
// it.
#include <gmock/gmock.h>

#include <fstream>

#include "Daemons.h"
#include "Driver.h"
#include "KernelState.h"

using namespace testsupport;
using testing::HasSubstr;

namespace {

class InterfaceDnsCrash : public testing::Test {
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

    ChildProcess mBus;
    ChildProcess mResolved;
};

}  // namespace

TEST_F(InterfaceDnsCrash, KilledAtAnyStepTheNextProcessBringsTheServersBack)
{
    NEEDS_STRACE();
    const std::string steps = "add /tmp/dns.json delete vpn0";
    const std::map<std::string, int> calls = callsOf(steps);
    const std::string before = state();
    ASSERT_THAT(before, HasSubstr("10.9.0.1"));
    int changed = 0;
    for (const auto& [call, count] : calls) {
        for (int number = 1; number <= count; ++number) {
            killBefore(call, number, steps);
            changed += outputOf(daemonTool("resolvectl") + " dns vpn0").find("10.8.0.1") == std::string::npos ? 0 : 1;
            run(driver("delete nothing0"));
            ASSERT_EQ(state(), before) << "killed before " << call << " number " << number;
        }
    }
    EXPECT_GT(changed, 5) << "the kills came too early or too late to prove anything";
}
