// SPDX-License-Identifier: Apache-2.0
//
// Why the agent is not notified of a status of the connection manager.
#include "monitor/StatusExplanation.h"

#include <gtest/gtest.h>

namespace {

using vpnoalctl::explainStatus;

constexpr char on[] = R"({"state":"connected","onInternet":"yes"})";
constexpr char off[] = R"({"state":"disconnected"})";

std::string reasonFor(const std::string& wifi, const std::string& wan, const char* boundName)
{
    const auto event = explainStatus(R"({"wifi":)" + wifi + R"(,"wan":)" + wan + "}", boundName);
    EXPECT_EQ("do not notify the agent", event.decision);
    return event.reason;
}

TEST(StatusExplanationTest, NetworkThatTheSocketIsBoundToIsStillTheOnlyOne)
{
    EXPECT_EQ("Wi-Fi is there, and eth0 is no WAN interface", reasonFor(on, off, "eth0"));
    EXPECT_EQ("WAN is there, and rmnet0 is no Wi-Fi interface", reasonFor(off, on, "rmnet0"));
}

TEST(StatusExplanationTest, WithoutANetworkThereIsNothingToConnectBy)
{
    EXPECT_EQ("no network is there to connect by", reasonFor(off, off, ""));
}

TEST(StatusExplanationTest, WhatIsNotSaidIsNotKnownToBeOff)
{
    EXPECT_EQ("not both networks are known to be off", reasonFor(off, "{}", "eth0"));
}

TEST(StatusExplanationTest, StatusThatIsNoJsonSaysNothing)
{
    EXPECT_EQ("it says nothing", explainStatus("no JSON", "eth0").reason);
}

}  // namespace
