// SPDX-License-Identifier: Apache-2.0
//
// The connection manager's verdict, on plain values.
#include "Status.h"

#include <gtest/gtest.h>

namespace connectionmanager {

std::ostream& operator<<(std::ostream& stream, const Status& status)
{
    return stream << toJson(status);
}

namespace {

const Link wifiLink{2, "eth0", true, true};
const Link wanLink{3, "wwan0", true, true};
const Section nothing;

/// Both connected, both with a default route.
Snapshot both()
{
    return {{wifiLink, wanLink}, {{2, "10.0.0.2"}, {3, "10.1.0.2"}}, {{2, 100}, {3, 700}}};
}

TEST(StatusTest, EmptySnapshotIsDisconnected)
{
    EXPECT_EQ((Status{nothing, nothing}), judge({}, Connectivity::NotRunning));
}

TEST(StatusTest, ConnectedLinksAreReportedInTheirSections)
{
    const Status expected{{true, true, "eth0", "10.0.0.2"}, {true, true, "wwan0", "10.1.0.2"}};
    EXPECT_EQ(expected, judge(both(), Connectivity::NotRunning));
}

TEST(StatusTest, LinkThatIsDownHasNoCarrierOrNoAddressIsDisconnected)
{
    Snapshot down = both();
    down.links[0].up = false;
    EXPECT_EQ(nothing, judge(down, Connectivity::NotRunning).wifi);
    Snapshot unplugged = both();
    unplugged.links[0].running = false;
    EXPECT_EQ(nothing, judge(unplugged, Connectivity::NotRunning).wifi);
    Snapshot unnumbered = both();
    unnumbered.addresses.erase(unnumbered.addresses.begin());
    EXPECT_EQ(nothing, judge(unnumbered, Connectivity::NotRunning).wifi);
    EXPECT_TRUE(judge(unnumbered, Connectivity::NotRunning).wan.connected);
}

TEST(StatusTest, WithoutADefaultRouteThereIsNoInternet)
{
    Snapshot snapshot = both();
    snapshot.defaultRoutes.pop_back();
    const Status expected{{true, true, "eth0", "10.0.0.2"}, {true, false, "wwan0", "10.1.0.2"}};
    EXPECT_EQ(expected, judge(snapshot, Connectivity::NotRunning));
}

TEST(StatusTest, NetworkManagersVerdictDecidesOverTheRoute)
{
    for (const Connectivity no : {Connectivity::None, Connectivity::Portal, Connectivity::Limited}) {
        EXPECT_FALSE(judge(both(), no).wifi.onInternet);
        EXPECT_TRUE(judge(both(), no).wifi.connected);
    }
    EXPECT_TRUE(judge(both(), Connectivity::Full).wifi.onInternet);
    EXPECT_TRUE(judge(both(), Connectivity::Unknown).wifi.onInternet);
    Snapshot routeless = both();
    routeless.defaultRoutes.clear();
    EXPECT_FALSE(judge(routeless, Connectivity::Full).wifi.onInternet);
}

TEST(StatusTest, OtherInterfacesDoNotCount)
{
    Snapshot snapshot{{{2, "wlan0", true, true}, {3, "usb0", true, true}, {4, "norvatun0", true, true}},
                      {{2, "10.0.0.2"}, {3, "10.0.1.2"}, {4, "10.0.2.2"}},
                      {{2, 0}, {3, 0}, {4, 0}}};
    EXPECT_EQ((Status{nothing, nothing}), judge(snapshot, Connectivity::NotRunning));
}

TEST(StatusTest, BestDefaultRouteChoosesAmongSeveral)
{
    Snapshot snapshot{{{2, "eth0", true, true}, {3, "eth1", true, true}, {4, "eth2", true, true}},
                      {{2, "10.0.0.2"}, {3, "10.0.1.2"}, {4, "10.0.2.2"}},
                      {{3, 200}, {4, 100}, {4, 900}}};
    EXPECT_EQ("eth2", judge(snapshot, Connectivity::NotRunning).wifi.interfaceName);
    snapshot.defaultRoutes.clear();
    EXPECT_EQ("eth0", judge(snapshot, Connectivity::NotRunning).wifi.interfaceName);
}

TEST(StatusTest, AConnectionWithoutItsRouteIsArriving)
{
    const Section here{true, false, "eth0", "10.0.0.2"};
    const Section whole{true, true, "eth0", "10.0.0.2"};
    const Section wan{true, true, "wwan0", "10.1.0.2"};
    EXPECT_TRUE(isArriving({nothing, nothing}, {here, nothing}));
    EXPECT_TRUE(isArriving({nothing, wan}, {here, wan}));
    EXPECT_TRUE(isArriving({nothing, nothing}, {here, {true, false, "wwan0", "10.1.0.2"}}));
    EXPECT_FALSE(isArriving({nothing, nothing}, {whole, nothing})) << "it is there";
    EXPECT_FALSE(isArriving({whole, nothing}, {here, nothing})) << "its route went";
    EXPECT_FALSE(isArriving({here, nothing}, {nothing, nothing})) << "it went";
    EXPECT_FALSE(isArriving({nothing, wan}, {here, nothing})) << "another one went";
    EXPECT_FALSE(isArriving({nothing, nothing}, {whole, {true, false, "wwan0", "10.1.0.2"}})) << "the other is there";
}

TEST(StatusTest, JsonHoldsNamesOnlyOfWhatIsConnected)
{
    EXPECT_EQ(R"({"returnValue":true,"wifi":{"state":"connected","onInternet":"yes","interfaceName":"eth0",)"
              R"("ipAddress":"10.0.0.2"},"wan":{"state":"disconnected","onInternet":"no"}})",
              toJson({{true, true, "eth0", "10.0.0.2"}, nothing}));
}

TEST(StatusTest, JsonOfARefusalHoldsCodeAndReason)
{
    EXPECT_EQ(R"({"returnValue":false,"errorCode":1,"errorText":"no \"thing\""})", refusalToJson("no \"thing\""));
}

}  // namespace

}  // namespace connectionmanager
