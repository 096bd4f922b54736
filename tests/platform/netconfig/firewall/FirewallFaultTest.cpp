// SPDX-License-Identifier: Apache-2.0
//
// A packet filter whose request fails half-way: what the kernel has is in the undo log.
#include <gmock/gmock.h>

#include <cstdlib>
#include <fstream>

#include "Driver.h"
#include "KernelState.h"

using namespace testsupport;
using testing::HasSubstr;

TEST(FirewallFaultTest, AnInterruptedSystemCallLeavesNoFilterWithoutItsEntry)
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

TEST(FirewallFaultTest, MoreRulesThanTheSocketTakesAreRefusedAndChangeNothing)
{
    NEEDS_STRACE();
    std::ofstream file("/tmp/filter.json");
    file << R"({"label":"fault","chainNew":"IN","rules":[{"operation":"append","jumpTo":"DROP"})";
    for (int count = 1; count < 10000; ++count)
        file << R"(,{"operation":"append","jumpTo":"DROP"})";
    file << "]}" << std::flush;
    const std::string output = outputOf(driverUnderStrace(
        "-o /dev/null -e trace=setsockopt -e inject=setsockopt:error=EPERM:when=5+", "firewall /tmp/filter.json"));
    EXPECT_EQ(output, "vknetconfig[3]: VkFirewallFullCtrl: nftables: send: Message too long\n");
    EXPECT_EQ(outputOf("nft list ruleset; ls /run/vknetconfig"), "turn\n");
}

TEST(FirewallFaultTest, LostAnswersAreNoSuccessAndLeaveNothing)
{
    NEEDS_STRACE();
    std::ofstream("/tmp/filter.json")
        << R"({"label":"fault","chainNew":"IN","rules":[{"operation":"append","jumpTo":"DROP"}]})";
    for (int number = 1; number <= 6; ++number) {
        for (const char* error : {"ENOBUFS", "ENOMEM"}) {
            const std::string output = outputOf(
                driverUnderStrace("-o /dev/null -e trace=recvmsg -e inject=recvmsg:error=" + std::string(error) +
                                      ":when=" + std::to_string(number),
                                  "firewall /tmp/filter.json") +
                " || echo REFUSED");
            const bool isRefused = output.find("REFUSED") != std::string::npos;
            const bool isInstalled = outputOf("nft list tables").find("inet fault") != std::string::npos;
            EXPECT_NE(isRefused, isInstalled) << error << " " << number << ": " << output;
            run(driver("delete nothing0"));
            ASSERT_EQ(outputOf("nft list ruleset; ls /run/vknetconfig"), "turn\n") << error << " " << number;
        }
    }
}
