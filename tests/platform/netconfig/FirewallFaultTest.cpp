// SPDX-License-Identifier: Apache-2.0
//
// A packet filter whose request fails half-way: what the kernel has is in the journal.
#include <gmock/gmock.h>

#include <cstdlib>
#include <fstream>

#include "Driver.h"
#include "KernelState.h"

using namespace testsupport;
using testing::HasSubstr;

TEST(FirewallFault, AnInterruptedSystemCallLeavesNoFilterWithoutItsEntry)
{
    NEEDS_STRACE();
    std::ofstream("/tmp/filter.json")
        << R"({"label":"fault","chainNew":"IN","rules":[{"operation":"append","jumpTo":"DROP"}]})";
    int installed = 0;
    for (const char* call : {"sendto", "sendmsg", "recvfrom", "recvmsg", "select", "pselect6", "poll", "ppoll"}) {
        for (int number = 1; number <= 12; ++number) {
            const std::string inject = std::string(call) + ":error=EINTR:when=" + std::to_string(number);
            const std::string output =
                outputOf(driverUnderStrace("-o /dev/null -e trace=" + std::string(call) + " -e inject=" + inject,
                                           "firewall /tmp/filter.json") +
                         " || echo REFUSED");
            const bool isInstalled = outputOf("nft list tables").find("inet fault") != std::string::npos;
            const bool isRecorded =
                outputOf("ls /run/vknetconfig/firewall-fault@*.journal").find("No such") == std::string::npos;
            installed += isInstalled ? 1 : 0;
            EXPECT_TRUE(isRecorded || !isInstalled) << inject << ": " << output;
            if (!isInstalled) {
                EXPECT_THAT(output, HasSubstr("REFUSED")) << inject;
            }
            run(driver("delete nothing0"));
            ASSERT_EQ(outputOf("nft list ruleset; ls /run/vknetconfig"), "turn\n") << inject << ": " << output;
        }
    }
    EXPECT_GT(installed, 25) << "the faults came too early to prove anything";
}
