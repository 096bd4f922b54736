// SPDX-License-Identifier: Apache-2.0
//
// Listing the routes of a scripted kernel into the agent's objects.
#include "AgentObjects.h"
#include "Faults.h"
#include "ReaderTest.h"
#include "SystemInterface.h"

extern "C" gpointer* __real_g_ptr_array_free(GPtrArray* array, gboolean withStorage);
extern "C" gpointer* __wrap_g_ptr_array_free(GPtrArray* array, gboolean withStorage);

static int sListsFreed = 0;

gpointer* __wrap_g_ptr_array_free(GPtrArray* array, gboolean withStorage)
{
    ++sListsFreed;
    return __real_g_ptr_array_free(array, withStorage);
}

namespace {

using namespace testsupport;
using testing::Contains;
using testing::ElementsAre;

class EnumerateRoutesTest : public ScriptedReaderTest {
protected:
    /// Three routes and one of the local table among them.
    void kernelHasThreeRoutes()
    {
        const std::string direct = attribute(RTA_DST, addressBytes("192.168.1.0")) + attribute(RTA_OIF, bytesOf(1));
        const std::string viaGateway = attribute(RTA_DST, addressBytes("10.0.0.0")) + attribute(RTA_OIF, bytesOf(1)) +
                                       attribute(RTA_GATEWAY, addressBytes("192.168.1.1")) +
                                       attribute(RTA_METRICS, bytesOf(0x20008)) + attribute(RTA_PRIORITY, bytesOf(77));
        mKernel.sends({routeMessage(routeHeader(24), direct) + routeMessage(routeHeader(32, RT_TABLE_LOCAL), direct) +
                           routeMessage(routeHeader(8, 100), viaGateway),
                       routeMessage(routeHeader(32, RT_TABLE_LOCAL), direct) + routeMessage(routeHeader(0)),
                       doneMessage()});
    }

    static fakes::LogLine returning(const std::string& count)
    {
        return {7, "SystemInterface::EnumerateRoutes: Array Length Being Returned: " + count};
    }

    SystemInterface mSystem;
};

TEST_F(EnumerateRoutesTest, WithoutAnArrayTheNumberOfNonLocalRoutesIsReturned)
{
    kernelHasThreeRoutes();
    fakes::clearLog();
    unsigned count = 0;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateRoutes(count, nullptr));
    EXPECT_EQ(3u, count);
    const auto lines = fakes::logLines();
    EXPECT_EQ((fakes::LogLine{7, "SystemInterface::EnumerateRoutes called!! the Array Length Passed In: 0"}),
              lines.front());
    EXPECT_EQ(returning("3"), lines.back());
}

TEST_F(EnumerateRoutesTest, ArrayOfTheRightLengthIsFilled)
{
    kernelHasThreeRoutes();
    RouteArray routes(3);
    unsigned count = 3;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateRoutes(count, routes.pointers()));
    EXPECT_EQ(3u, count);

    EXPECT_STREQ("192.168.1.0", routes[0].GetDestination());
    EXPECT_STREQ("192.168.1.0", routes[0].GetGateway());  // no gateway: its own destination
    EXPECT_STREQ("255.255.255.0", routes[0].GetNetmask());
    EXPECT_STREQ("lo", routes[0].GetInterface());
    EXPECT_EQ(0, routes[0].GetReservedValue());
    EXPECT_EQ(0u, routes[0].GetMetric());

    EXPECT_STREQ("10.0.0.0", routes[1].GetDestination());
    EXPECT_STREQ("192.168.1.1", routes[1].GetGateway());
    EXPECT_STREQ("255.0.0.0", routes[1].GetNetmask());
    EXPECT_EQ(0x20008u, routes[1].GetMetric());  // not the priority

    EXPECT_STREQ("0.0.0.0", routes[2].GetDestination());
    EXPECT_STREQ("0.0.0.0", routes[2].GetGateway());
    EXPECT_STREQ("0.0.0.0", routes[2].GetNetmask());
    EXPECT_STREQ("", routes[2].GetInterface());  // index 0 has no name

    EXPECT_THAT(fakes::logLines(), Contains(fakes::LogLine{7,
                                                           "SystemInterface::EnumerateRoutes: Route Found: "
                                                           "Dest(10.0.0.0) Gw(192.168.1.1) Mask(255.0.0.0) "
                                                           "Metric(131080) IfIndex(lo)"}));
    EXPECT_EQ(returning("3"), fakes::logLines().back());
}

TEST_F(EnumerateRoutesTest, LongerArrayIsFilledInItsFirstElementsAndCountStays)
{
    kernelHasThreeRoutes();
    RouteArray routes(5);
    unsigned count = 5;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateRoutes(count, routes.pointers()));
    EXPECT_EQ(5u, count);
    EXPECT_FALSE(routes[2].isUntouched());
    EXPECT_TRUE(routes[3].isUntouched());
    EXPECT_TRUE(routes[4].isUntouched());
}

TEST_F(EnumerateRoutesTest, ShorterArrayIsTooSmallAndUntouched)
{
    kernelHasThreeRoutes();
    RouteArray routes(2);
    unsigned count = 2;
    EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, mSystem.EnumerateRoutes(count, routes.pointers()));
    EXPECT_EQ(3u, count);
    EXPECT_TRUE(routes[0].isUntouched());
    EXPECT_EQ(returning("3"), fakes::logLines().back());
}

TEST_F(EnumerateRoutesTest, ArrayOfLengthZeroFailsWithoutReadingTheTable)
{
    RouteArray routes(1);
    unsigned count = 0;
    fakes::clearLog();
    EXPECT_EQ(PLUGIN_FAILURE, mSystem.EnumerateRoutes(count, routes.pointers()));
    EXPECT_EQ(0u, count);
    EXPECT_THAT(
        fakes::logLines(),
        ElementsAre(fakes::LogLine{7, "SystemInterface::EnumerateRoutes called!! the Array Length Passed In: 0"},
                    fakes::LogLine{3, "SystemInterface::EnumerateRoutes: A buffer was provided but its length is 0"},
                    returning("0")));
    EXPECT_EQ("", mKernel.request());
}

TEST_F(EnumerateRoutesTest, NoArrayWithALargeEnoughCountSucceedsAndLeavesTheCount)
{
    for (const unsigned given : {3u, 4u}) {
        kernelHasThreeRoutes();
        unsigned count = given;
        EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateRoutes(count, nullptr));
        EXPECT_EQ(given, count);
    }
}

TEST_F(EnumerateRoutesTest, NoArrayWithATooSmallCountYieldsTheNumber)
{
    kernelHasThreeRoutes();
    unsigned count = 2;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateRoutes(count, nullptr));
    EXPECT_EQ(3u, count);
}

TEST_F(EnumerateRoutesTest, NullPointersInTheArrayAreSkipped)
{
    kernelHasThreeRoutes();
    RouteArray routes(3);
    routes.pointers()[1] = nullptr;
    unsigned count = 3;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateRoutes(count, routes.pointers()));
    EXPECT_TRUE(routes[1].isUntouched());
    EXPECT_STREQ("0.0.0.0", routes[2].GetDestination());
}

TEST_F(EnumerateRoutesTest, TableOfLocalRoutesOnlyIsEmpty)
{
    mKernel.sends(
        {routeMessage(routeHeader(32, RT_TABLE_LOCAL)) + routeMessage(routeHeader(32, RT_TABLE_LOCAL)), doneMessage()});
    RouteArray routes(1);
    unsigned count = 1;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateRoutes(count, routes.pointers()));
    EXPECT_EQ(1u, count);
    EXPECT_TRUE(routes[0].isUntouched());
}

TEST_F(EnumerateRoutesTest, EmptyTableHasNoRoutes)
{
    mKernel.sends({doneMessage()});
    unsigned count = 0;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateRoutes(count, nullptr));
    EXPECT_EQ(0u, count);
}

TEST_F(EnumerateRoutesTest, UnreadableTableFails)
{
    const Fault fault(Call::Send, 1, EPERM);
    fakes::clearLog();
    unsigned count = 7;
    EXPECT_EQ(PLUGIN_FAILURE, mSystem.EnumerateRoutes(count, nullptr));
    EXPECT_EQ(7u, count);
    EXPECT_THAT(fakes::logLines(3),
                Contains(fakes::LogLine{3, "SystemInterface::EnumerateRoutes: Routing Table not listed"}));
    EXPECT_EQ(returning("7"), fakes::logLines().back());
}

TEST_F(EnumerateRoutesTest, ListIsFreedThoughTheAgentsSetterThrows)
{
    struct : ListedRoute {
        void SetNetmask(char* text) override
        {
            std::free(text);
            throw 7;
        }
    } throwing;
    kernelHasThreeRoutes();
    KEST_SystemPluginRoute* routes[] = {&throwing, &throwing, &throwing};
    unsigned count = 3;
    sListsFreed = 0;
    EXPECT_THROW(mSystem.EnumerateRoutes(count, routes), int);
    EXPECT_EQ(1, sListsFreed);
}

TEST_F(EnumerateRoutesTest, SettersAreCalledInTheirOrder)
{
    struct : ListedRoute {
        void SetDestination(char* text) override { order += "destination ", ListedRoute::SetDestination(text); }
        void SetGateway(char* text) override { order += "gateway ", ListedRoute::SetGateway(text); }
        void SetNetmask(char* text) override { order += "netmask ", ListedRoute::SetNetmask(text); }
        void SetInterface(char* text) override { order += "interface ", ListedRoute::SetInterface(text); }
        void SetReservedValue(std::int32_t value) override { order += "reserved=" + std::to_string(value) + " "; }
        void SetMetric(unsigned int) override { order += "metric "; }
        std::string order;
    } route;
    mKernel.sends({routeMessage(routeHeader(24)), doneMessage()});
    KEST_SystemPluginRoute* routes[] = {&route};
    unsigned count = 1;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateRoutes(count, routes));
    EXPECT_EQ("destination gateway netmask interface reserved=0 metric ", route.order);
}

TEST_F(EnumerateRoutesTest, MetricsOf2To31AndMoreKeepTheirValue)
{
    for (const unsigned metric : {0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        mKernel.sends({routeMessage(routeHeader(24), attribute(RTA_METRICS, bytesOf(metric))), doneMessage()});
        RouteArray routes(1);
        unsigned count = 1;
        fakes::clearLog();
        EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateRoutes(count, routes.pointers()));
        EXPECT_EQ(metric, routes[0].GetMetric());
        EXPECT_THAT(fakes::logLines(),
                    Contains(fakes::LogLine{7,
                                            "SystemInterface::EnumerateRoutes: Route Found: Dest(0.0.0.0) "
                                            "Gw(0.0.0.0) Mask(255.255.255.0) Metric(" +
                                                std::to_string(static_cast<int>(metric)) + ") IfIndex()"}));
    }
}

TEST_F(EnumerateRoutesTest, NothingIsReadBackOrLoggedBelowDebug)
{
    fakes::logContext().level = 6;
    kernelHasThreeRoutes();
    RouteArray routes(3);
    unsigned count = 3;
    fakes::clearLog();
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateRoutes(count, routes.pointers()));
    EXPECT_THAT(fakes::logLines(), testing::IsEmpty());
}

TEST_F(EnumerateRoutesTest, InterfaceNamesAreLookedUpOncePerCall)
{
    std::string datagram;
    for (int i = 0; i < 100; ++i)
        datagram += routeMessage(routeHeader(0), attribute(RTA_OIF, bytesOf(i % 2)));
    mKernel.sends({datagram, doneMessage()});
    RouteArray routes(100);
    unsigned count = 100;
    const Fault third(Call::NameOfIndex, 3, ENXIO);
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateRoutes(count, routes.pointers()));
    EXPECT_FALSE(third.hasStruck());
    EXPECT_STREQ("lo", routes[99].GetInterface());
}

}  // namespace
