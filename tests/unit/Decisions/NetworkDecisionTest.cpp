// SPDX-License-Identifier: Apache-2.0
//
// The flag rule and the decision table, on plain values.
#include "Decisions/NetworkDecision.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace wfoal {

std::ostream& operator<<(std::ostream& stream, const NetworkFlags& flags)
{
    return stream << "connected " << flags.connected << ", notOnInternet " << flags.notOnInternet;
}

std::ostream& operator<<(std::ostream& stream, const NetworkDecision& decision)
{
    return stream << decision.sendNwCng << " (" << (decision.reason != nullptr ? decision.reason : "no reason") << ")";
}

namespace {

constexpr NetworkFlags unknown{};
constexpr NetworkFlags on{true, false};
constexpr NetworkFlags off{false, true};

const NetworkDecision wifiConnected{true, "wifi connected"};
const NetworkDecision wanConnected{true, "wan connected"};
const NetworkDecision airplaneMode{true, "airplane mode on"};
const NetworkDecision nothing{false, nullptr};

TEST(NetworkFlagsTest, MissingStateSaysNothing)
{
    EXPECT_EQ(unknown, networkFlags(nullptr, nullptr));
    EXPECT_EQ(unknown, networkFlags(nullptr, "yes"));
}

TEST(NetworkFlagsTest, AnyOtherStateThanConnectedIsOff)
{
    for (const char* state : {"idle", "", "connecte", "Connected", " connected", "disconnected"}) {
        EXPECT_EQ(off, networkFlags(state, "yes")) << state;
        EXPECT_EQ(off, networkFlags(state, nullptr)) << state;
    }
}

TEST(NetworkFlagsTest, ConnectedWithoutOnInternetSaysNothing)
{
    EXPECT_EQ(unknown, networkFlags("connected", nullptr));
}

TEST(NetworkFlagsTest, OnInternetDecidesWhenConnected)
{
    EXPECT_EQ(on, networkFlags("connected", "yes"));
    EXPECT_EQ(off, networkFlags("connected", "no"));
    for (const char* text : {"", "y", "ye", "n", "Yes", "maybe", "true"}) {
        EXPECT_EQ(unknown, networkFlags("connected", text)) << text;
    }
}

TEST(NetworkFlagsTest, LongerTextsThatBeginWithTheLiteralMatch)
{
    EXPECT_EQ(on, networkFlags("connectedX", "yesterday"));
    EXPECT_EQ(off, networkFlags("connectedX", "none"));
}

struct Case {
    NetworkFlags wifi;
    NetworkFlags wan;
    std::string bound;
    NetworkDecision decision;
};

void expectAll(const std::vector<Case>& cases)
{
    for (const Case& c : cases) {
        EXPECT_EQ(c.decision, decideNetworkChange(c.wifi, c.wan, c.bound))
            << "wifi: " << c.wifi << "; wan: " << c.wan << "; bound to '" << c.bound << "'";
    }
}

TEST(NetworkDecisionTest, DecisionsAreEqualWhenEventAndReasonAre)
{
    const std::string sameText = "wan connected";
    EXPECT_TRUE(wanConnected == (NetworkDecision{true, sameText.c_str()}));
    EXPECT_FALSE(wanConnected == wifiConnected);
    EXPECT_FALSE(wanConnected == (NetworkDecision{false, "wan connected"}));
    EXPECT_FALSE(nothing == (NetworkDecision{true, nullptr}));
    EXPECT_FALSE(nothing == (NetworkDecision{false, ""}));
}

TEST(NetworkDecisionTest, ConnectedWiFiWhileOnWanOrUnboundRaisesTheEvent)
{
    for (const NetworkFlags& wan : {unknown, on, off}) {
        expectAll({{on, wan, "", wifiConnected},
                   {on, wan, "ppp0", wifiConnected},
                   {on, wan, "rmnet0", wifiConnected},
                   {on, wan, "wwan0", wifiConnected}});
    }
}

TEST(NetworkDecisionTest, ConnectedWiFiWhileOnAnyOtherInterfaceEndsTheDecision)
{
    for (const NetworkFlags& wan : {unknown, on, off}) {
        expectAll({{on, wan, "eth0", nothing}, {on, wan, "usb0", nothing}, {on, wan, "norvatun0", nothing}});
    }
}

TEST(NetworkDecisionTest, ConnectedWanWhileOnWiFiOrUnboundRaisesTheEvent)
{
    for (const NetworkFlags& wifi : {unknown, off}) {
        expectAll({{wifi, on, "", wanConnected}, {wifi, on, "eth0", wanConnected}});
    }
}

TEST(NetworkDecisionTest, ConnectedWanWhileOnAnyOtherInterfaceDoesNot)
{
    for (const NetworkFlags& wifi : {unknown, off}) {
        expectAll({{wifi, on, "usb0", nothing}, {wifi, on, "bridge0", nothing}, {wifi, on, "ppp0", nothing}});
    }
}

TEST(NetworkDecisionTest, BothOffRaisesTheEventOnlyWhileBound)
{
    expectAll({{off, off, "eth0", airplaneMode},
               {off, off, "rmnet0", airplaneMode},
               {off, off, "usb0", airplaneMode},
               {off, off, "", nothing}});
}

TEST(NetworkDecisionTest, OneNetworkOffAndTheOtherUnknownDoesNothing)
{
    for (const char* bound : {"", "eth0", "ppp0", "usb0"}) {
        expectAll({{off, unknown, bound, nothing}, {unknown, off, bound, nothing}, {unknown, unknown, bound, nothing}});
    }
}

// Flags that no section can give: the table holds for them too.
TEST(NetworkDecisionTest, WanConnectedAndOffAtOnceIsNoAirplaneMode)
{
    constexpr NetworkFlags both{true, true};
    expectAll({{off, both, "usb0", nothing}, {off, both, "eth0", wanConnected}, {both, off, "", wifiConnected}});
}

}  // namespace

}  // namespace wfoal
