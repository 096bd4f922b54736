// SPDX-License-Identifier: Apache-2.0
//
// A packet filter in the kernel of the test's own network namespace.
#ifndef FIREWALLFIXTURE_H
#define FIREWALLFIXTURE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "KernelState.h"
#include "VkNetConfigLib.h"

using testsupport::outputOf;

inline constexpr char removal[] = R"({"label":"vpn.vpnoal","chainDelete":"NORVA"})";
inline constexpr char dropAll[] = R"({"operation":"append","jumpTo":"DROP"})";

inline std::string request(const std::string& rules, const std::string& label = "vpn.vpnoal",
                           const std::string& chain = "NORVA")
{
    return R"({"label":")" + label + R"(","chainNew":")" + chain + R"(","rules":[)" + rules + "]}";
}

inline int control(const std::string& json)
{
    return VkFirewallFullCtrl(json.c_str());
}

class FirewallFixture : public testing::Test {
protected:
    void SetUp() override
    {
        setenv("VKLOG_TARGET", "stderr", 1);
        outputOf("nft flush ruleset");
    }
    void TearDown() override
    {
        control(removal);
        outputOf("nft flush ruleset");
    }
};

#endif
