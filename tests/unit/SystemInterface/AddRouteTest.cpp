// SPDX-License-Identifier: Apache-2.0
//
// Routes that are added through the interface request.
#include <limits>

#include "SystemInterfaceTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class AddRouteTest : public SystemInterfaceTest {
protected:
    PluginResult add(AgentRoute route)
    {
        KEST_SystemPluginRoute* routes[] = {&route};
        return mSystem->AddRoute(1, routes);
    }
};

TEST_F(AddRouteTest, NullArrayChangesNothing)
{
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->AddRoute(7, nullptr));
    EXPECT_THAT(fakes::logLines(), ElementsAre(fakes::LogLine{7, "SystemInterface::AddRoute called!!"}));
    EXPECT_EQ(request(""), appliedRequest());
}

TEST_F(AddRouteTest, CountZeroStillCreatesTheEmptyArray)
{
    KEST_SystemPluginRoute* routes[] = {nullptr};
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->AddRoute(0, routes));
    EXPECT_EQ(request(R"( "additionalIfRoutes": [ ])"), appliedRequest());
}

TEST_F(AddRouteTest, NullFirstRouteStillCreatesTheEmptyArray)
{
    KEST_SystemPluginRoute* routes[] = {nullptr};
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->AddRoute(1, routes));
    EXPECT_EQ(request(R"( "additionalIfRoutes": [ ])"), appliedRequest());
}

TEST_F(AddRouteTest, RouteIsCopiedAsGivenAndLogged)
{
    EXPECT_EQ(PLUGIN_SUCCESS, add({"10.9.0.0", "255.255.0.0", "10.8.0.1", 7, "eth1"}));
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(fakes::LogLine{7, "SystemInterface::AddRoute called!!"},
                            fakes::LogLine{7,
                                           "SystemInterface::AddRoute: Dest(10.9.0.0) Gateway(10.8.0.1) "
                                           "Mask(255.255.0.0)  Metric(7) IfId(eth1)"}));
    EXPECT_THAT(fakes::calls(), IsEmpty());
    EXPECT_EQ(request(R"( "additionalIfRoutes": [ { "ip": "10.9.0.0", "netmask": "255.255.0.0", )"
                      R"("gateway": "10.8.0.1", "metric": 7 } ])"),
              appliedRequest());
}

TEST_F(AddRouteTest, ListEndsAtANullPointerAndCallsAddUp)
{
    AgentRoute a("10.1.0.0", "255.255.0.0", "10.8.0.1", 1);
    AgentRoute b("10.2.0.0", "255.255.0.0", "10.8.0.1", 2);
    AgentRoute c("10.3.0.0", "255.255.0.0", "10.8.0.1", 3);
    KEST_SystemPluginRoute* first[] = {&a, nullptr, &b};
    KEST_SystemPluginRoute* second[] = {&c, &b};
    mSystem->AddRoute(3, first);
    mSystem->AddRoute(1, second);
    EXPECT_EQ(request(R"( "additionalIfRoutes": [ { "ip": "10.1.0.0", "netmask": "255.255.0.0", )"
                      R"("gateway": "10.8.0.1", "metric": 1 }, { "ip": "10.3.0.0", "netmask": "255.255.0.0", )"
                      R"("gateway": "10.8.0.1", "metric": 3 } ])"),
              appliedRequest());
    EXPECT_EQ(request(""), appliedRequest());
}

TEST_F(AddRouteTest, RoutesThatFollowAnApplyAreInTheNextRequestOnly)
{
    add({"10.1.0.0", "255.255.0.0", "10.8.0.1", 1});
    const std::string before = appliedRequest();
    add({"10.2.0.0", "255.255.0.0", "10.8.0.1", 2});
    EXPECT_EQ(request(R"( "additionalIfRoutes": [ { "ip": "10.2.0.0", "netmask": "255.255.0.0", )"
                      R"("gateway": "10.8.0.1", "metric": 2 } ])"),
              appliedRequest());
    EXPECT_THAT(before, testing::HasSubstr("10.1.0.0"));
}

TEST_F(AddRouteTest, DestinationAllZeroesSetsTheDefaultGatewayFlag)
{
    add({"0.0.0.0", "0.0.0.0", "10.8.0.1", 0});
    EXPECT_TRUE(sDoesHaveADefaultGateway);
    // Nothing but a restore clears it.
    add({"10.9.0.0", "255.255.0.0", "10.8.0.1", 0});
    EXPECT_TRUE(sDoesHaveADefaultGateway);
}

TEST_F(AddRouteTest, DefaultRouteWrittenAnyOtherWayDoesNotSetTheFlag)
{
    for (const char* destination : {"default", "0.0.0.0/0", "0", "00.0.0.0", "0.0.0.0 ", ""}) {
        add({destination, "0.0.0.0", "10.8.0.1", 0});
        EXPECT_FALSE(sDoesHaveADefaultGateway) << destination;
    }
}

TEST_F(AddRouteTest, NullTextsOfGettersBecomeJsonNull)
{
    EXPECT_EQ(PLUGIN_SUCCESS, add({nullptr, nullptr, nullptr, 0, nullptr}));
    EXPECT_FALSE(sDoesHaveADefaultGateway);
    EXPECT_EQ((fakes::LogLine{7,
                              "SystemInterface::AddRoute: Dest((null)) Gateway((null)) Mask((null))  Metric(0) "
                              "IfId((null))"}),
              fakes::logLines().back());
    EXPECT_EQ(request(R"( "additionalIfRoutes": [ { "ip": null, "netmask": null, "gateway": null, "metric": 0 } ])"),
              appliedRequest());
}

TEST_F(AddRouteTest, MetricAbove2To31KeepsItsValue)
{
    add({"10.9.0.0", "255.255.0.0", "10.8.0.1", std::numeric_limits<unsigned>::max()});
    EXPECT_THAT(fakes::logLines().back().text, testing::HasSubstr("Metric(4294967295)"));
    EXPECT_EQ(request(R"( "additionalIfRoutes": [ { "ip": "10.9.0.0", "netmask": "255.255.0.0", )"
                      R"("gateway": "10.8.0.1", "metric": 4294967295 } ])"),
              appliedRequest());
}

TEST_F(AddRouteTest, RoutesOfAFailedApplyStay)
{
    fakes::netConfigResults().add = 1;
    add({"10.9.0.0", "255.255.0.0", "10.8.0.1", 7});
    const std::string first = appliedRequest();
    EXPECT_EQ(first, appliedRequest());
    EXPECT_THAT(first, testing::HasSubstr("10.9.0.0"));
}

}  // namespace
