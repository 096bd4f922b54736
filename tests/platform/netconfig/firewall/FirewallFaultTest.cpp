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

namespace {

void writeFilter(int rules)
{
    std::ofstream file("/tmp/filter.json");
    file << R"({"label":"fault","chainNew":"IN","rules":[{"operation":"append","jumpTo":"DROP"})";
    for (int count = 1; count < rules; ++count)
        file << R"(,{"operation":"append","jumpTo":"DROP"})";
    file << "]}";
}

}  // namespace

TEST(FirewallFaultTest, AnInterruptedSystemCallLeavesNoFilterWithoutItsEntry)
{
    NEEDS_STRACE();
    writeFilter(1);
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
    writeFilter(10000);
    const std::string output = outputOf(driverUnderStrace(
        "-o /dev/null -e trace=setsockopt -e inject=setsockopt:error=EPERM:when=5+", "firewall /tmp/filter.json"));
    EXPECT_EQ(output, "vknetconfig[3]: VkFirewallFullCtrl: nftables: send: Message too long\n");
    EXPECT_EQ(outputOf("nft list ruleset; ls /run/vknetconfig"), "turn\n");
}

// More than the socket takes at first, and less than the usual limit of those who may not exceed it.
TEST(FirewallFaultTest, WithoutTheRightToExceedTheLimitTheSocketTakesWhatTheLimitAllows)
{
    NEEDS_STRACE();
    writeFilter(3000);
    const std::string output = outputOf(driverUnderStrace(
        "-o /tmp/trace -e trace=setsockopt -e inject=setsockopt:error=EPERM:when=5", "firewall /tmp/filter.json"));
    EXPECT_EQ(output, "");
    EXPECT_EQ(outputOf("grep -c 'SO_SNDBUFFORCE.*INJECTED' /tmp/trace"), "1\n");
    EXPECT_EQ(outputOf("nft list chain inet fault IN | grep -c drop"), "3000\n");
    run(driver("delete nothing0"));
}

// The kernel has taken the second request when its answer is lost.
TEST(FirewallFaultTest, ARequestWhoseAnswerIsLostSaysWhatTheKernelHas)
{
    NEEDS_STRACE();
    std::ofstream("/tmp/first.json")
        << R"({"label":"fault","chainNew":"IN","rules":[{"operation":"append","jumpTo":"DROP"}]})";
    std::ofstream("/tmp/second.json")
        << R"({"label":"fault","chainNew":"SECOND","rules":[{"operation":"append","jumpTo":"ACCEPT"}]})";
    std::ofstream("/tmp/none.json") << R"({"label":"fault","chainDelete":"IN"})";
    const std::string trace = " -e trace=recvmsg";
    outputOf(driverUnderStrace("-o /tmp/trace" + trace, "firewall /tmp/first.json"));
    const int ofTheFirst = std::stoi(outputOf("grep -c recvmsg /tmp/trace"));
    run(driver("delete nothing0"));
    for (const std::string request : {"second", "none"}) {
        int refused = 0;
        int taken = 0;
        for (int number = 1; number <= 4; ++number) {
            const std::string inject =
                trace + " -e inject=recvmsg:error=ENOMEM:when=" + std::to_string(ofTheFirst + number);
            const std::string output =
                outputOf(driverUnderStrace("-o /dev/null" + inject,
                                           "firewall /tmp/first.json firewall /tmp/" + request + ".json") +
                         " || echo REFUSED");
            const bool isRefused = output.find("REFUSED") != std::string::npos;
            const std::string ruleset = outputOf("nft list ruleset");
            const bool isTheFirst = ruleset.find("chain IN") != std::string::npos;
            EXPECT_EQ(isRefused, isTheFirst) << request << " " << number << ": " << output;
            refused += isRefused ? 1 : 0;
            taken += isTheFirst ? 0 : 1;
            run(driver("delete nothing0"));
            ASSERT_EQ(outputOf("nft list ruleset; ls /run/vknetconfig"), "turn\n") << request << " " << number;
        }
        EXPECT_GT(refused, 0) << request;
        EXPECT_GT(taken, 0) << request;
    }
}

TEST(FirewallFaultTest, ALockThatCannotBeHadLeavesNoFile)
{
    NEEDS_STRACE();
    writeFilter(1);
    int refused = 0;
    for (int number = 1; number <= 8; ++number) {
        const std::string output = outputOf(
            driverUnderStrace("-o /dev/null -e trace=fcntl -e inject=fcntl:error=ENOLCK:when=" + std::to_string(number),
                              "firewall /tmp/filter.json") +
            " || echo REFUSED");
        if (output.find("undo log: lock: No locks available") != std::string::npos) {
            ++refused;
            EXPECT_THAT(output, HasSubstr("REFUSED"));
            EXPECT_EQ(outputOf("nft list ruleset; ls -A /run/vknetconfig"), "turn\n") << number << ": " << output;
        }
        run(driver("delete nothing0"));
        ASSERT_EQ(outputOf("nft list ruleset; ls -A /run/vknetconfig"), "turn\n") << number << ": " << output;
    }
    EXPECT_GE(refused, 2);
}

TEST(FirewallFaultTest, LostAnswersAreNoSuccessAndLeaveNothing)
{
    NEEDS_STRACE();
    writeFilter(1);
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

// Neither the answer nor what the kernel has instead is to be had.
TEST(FirewallFaultTest, WhatCannotBeToldIsNoSuccess)
{
    NEEDS_STRACE();
    writeFilter(1);
    int refused = 0;
    for (int number = 1; number <= 20; ++number) {
        const std::string output = outputOf(
            driverUnderStrace(
                "-o /dev/null -e trace=recvmsg -e inject=recvmsg:error=ENOMEM:when=" + std::to_string(number) + "+",
                "firewall /tmp/filter.json") +
            " || echo REFUSED");
        const bool isRefused = output.find("REFUSED") != std::string::npos;
        run(driver("delete nothing0"));
        ASSERT_EQ(outputOf("nft list ruleset; ls /run/vknetconfig"), "turn\n") << number;
        if (!isRefused) break;
        ++refused;
    }
    EXPECT_GE(refused, 2);
}
