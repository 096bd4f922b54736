// SPDX-License-Identifier: Apache-2.0
//
// Random routing tables in a private namespace: what the reader, the listing and the choice make of each is compared
// with what the ip tool prints.
#include <arpa/inet.h>
#include <net/if.h>

#include <map>
#include <random>

#include "AgentObjects.h"
#include "NetLinkHelper.h"
#include "ReaderTest.h"
#include "RouteBatch.h"
#include "Shell.h"
#include "SocketInterface.h"
#include "SystemInterface.h"
#include "handles/Json.h"

namespace {

using namespace testsupport;

constexpr int tables = 2'100;

std::string textOf(json_object* object, const char* key)
{
    json_object* value = nullptr;
    return json_object_object_get_ex(object, key, &value) ? json_object_get_string(value) : "";
}

in_addr addressOf(const std::string& text)
{
    in_addr address{};
    EXPECT_TRUE(text.empty() || inet_pton(AF_INET, text.c_str(), &address) == 1) << text;
    return address;
}

std::uint8_t tableOf(const std::string& name)
{
    static const std::map<std::string, int> names = {
        {"", RT_TABLE_MAIN}, {"main", RT_TABLE_MAIN}, {"local", RT_TABLE_LOCAL}, {"default", RT_TABLE_DEFAULT}};
    const auto found = names.find(name);
    const int number = found != names.end() ? found->second : std::stoi(name);
    if (number > 255) return RT_TABLE_COMPAT;
    return static_cast<std::uint8_t>(number);
}

// The header of the first nested metric; the kernel writes them in the order of their types.
std::uint32_t metricOf(json_object* route)
{
    json_object* metrics = nullptr;
    if (!json_object_object_get_ex(route, "metrics", &metrics)) return 0;
    json_object* first = json_object_array_get_idx(metrics, 0);
    const bool hasMtu = json_object_object_get_ex(first, "mtu", nullptr);
    return static_cast<std::uint32_t>(hasMtu ? RTAX_MTU : RTAX_WINDOW) << 16 | 8U;
}

RouteInfo fromJson(json_object* object)
{
    RouteInfo route{};
    const std::string destination = textOf(object, "dst");
    if (destination != "default") {
        const auto slash = destination.find('/');
        const int prefix = slash == std::string::npos ? 32 : std::stoi(destination.substr(slash + 1));
        route.dst = addressOf(destination.substr(0, slash));
        route.mask.s_addr = prefix == 0 ? 0 : htonl(~0u << (32 - prefix));
    }
    route.gateway = addressOf(textOf(object, "gateway"));
    route.prefSrc = addressOf(textOf(object, "prefsrc"));
    const std::string priority = textOf(object, "metric");
    if (!priority.empty()) route.priority = static_cast<std::uint32_t>(std::stoul(priority));
    const std::string device = textOf(object, "dev");
    if (!device.empty()) route.oifIndex = if_nametoindex(device.c_str());
    route.metric = metricOf(object);
    route.table = tableOf(textOf(object, "table"));
    return route;
}

std::vector<RouteInfo> toolRoutes()
{
    const JsonPtr list(json_tokener_parse(shell("ip -json -4 route show table all").c_str()));
    EXPECT_EQ(json_type_array, json_object_get_type(list.get()));
    std::vector<RouteInfo> routes;
    for (std::size_t i = 0; i < json_object_array_length(list.get()); ++i) {
        routes.push_back(fromJson(json_object_array_get_idx(list.get(), i)));
    }
    return routes;
}

std::string dotted(in_addr address)
{
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof text);
}

class RandomRouteTablesTest : public testing::Test {
protected:
    RandomRouteTablesTest()
    {
        fakes::logContext().level = 6;
        int subnet = 0;
        for (const char* name : {"eth0", "rmnet0", "usb0"}) {
            ++subnet;
            addVethPair(name, "peer" + std::to_string(subnet), ("10." + std::to_string(subnet) + ".0.2/16").c_str());
            mIndices.push_back(if_nametoindex(name));
        }
        readFromThisNamespace();
    }

    std::uint32_t below(std::size_t limit) { return static_cast<std::uint32_t>(mRandom() % limit); }

    template <typename T>
    T oneOf(std::initializer_list<T> values)
    {
        return values.begin()[below(values.size())];
    }

    std::uint32_t gatewayIn(std::size_t subnet)
    {
        return 0x0a000100 + (static_cast<std::uint32_t>(subnet + 1) << 16) + below(0x1000);
    }

    NewRoute randomRoute()
    {
        NewRoute route;
        route.prefixLength = static_cast<std::uint8_t>(oneOf<std::uint32_t>({0, 0, 1, 8, 16, 24, 31, 32, below(33)}));
        if (route.prefixLength != 0) {
            route.destination = (0x14000000 + below(0x60000000)) & ~0u << (32 - route.prefixLength);
        }
        route.table = oneOf<std::uint32_t>({254, 254, 254, 254, 253, 1, 100, 251, 252, 1000, 70000});
        route.priority = oneOf<std::uint32_t>({0, 1, 5, 5, 10, 9998, 9999, 10000, 0x7fffffff, 0x80000000, 0xffffffff});
        route.mtu = below(4) == 0 ? 1280 + below(200) : 0;
        route.window = below(6) == 0 ? 4000 : 0;
        if (below(8) == 0) {
            route.type = oneOf<std::uint8_t>({RTN_BLACKHOLE, RTN_UNREACHABLE, RTN_PROHIBIT, RTN_THROW});
            return route;
        }
        const std::size_t subnet = below(mIndices.size());
        if (below(8) == 0) {
            for (std::uint32_t hops = 2 + below(3); hops > 0; --hops) {
                const std::size_t way = below(mIndices.size());
                route.hops.push_back({gatewayIn(way), mIndices[way]});
            }
            return route;
        }
        route.index = mIndices[subnet];
        if (below(4) != 0) route.gateway = gatewayIn(subnet);
        if (below(4) == 0) route.preferredSource = 0x0a000002 | static_cast<std::uint32_t>(subnet + 1) << 16;
        return route;
    }

    void compareReader(const std::vector<RouteInfo>& expected)
    {
        const RouteListPtr routes(sNlHelper.getRoutingTableList());
        ASSERT_NE(nullptr, routes);
        ASSERT_EQ(expected.size(), routes->len);
        for (guint i = 0; i < routes->len; ++i) {
            ASSERT_EQ(expected[i], routeAt(routes, i)) << "route " << i << " to " << dotted(expected[i].dst);
        }
    }

    void compareListing(const std::vector<RouteInfo>& all)
    {
        std::vector<RouteInfo> expected;
        for (const RouteInfo& route : all) {
            if (route.table != RT_TABLE_LOCAL) expected.push_back(route);
        }
        unsigned count = 0;
        ASSERT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateRoutes(count, nullptr));
        ASSERT_EQ(expected.size(), count);
        RouteArray routes(count);
        ASSERT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateRoutes(count, routes.pointers()));
        for (unsigned i = 0; i < count; ++i) {
            const RouteInfo& route = expected[i];
            char name[IF_NAMESIZE] = {};
            if_indextoname(route.oifIndex, name);
            ASSERT_EQ(dotted(route.dst), routes[i].GetDestination());
            ASSERT_EQ(dotted(route.gateway.s_addr != 0 ? route.gateway : route.dst), routes[i].GetGateway());
            ASSERT_EQ(dotted(route.mask), routes[i].GetNetmask());
            ASSERT_STREQ(name, routes[i].GetInterface());
            ASSERT_EQ(route.metric, routes[i].GetMetric());
        }
    }

    void compareChoice(const std::vector<RouteInfo>& routes)
    {
        std::string expected;
        long best = 9999;
        for (const RouteInfo& route : routes) {
            const long priority = static_cast<std::int32_t>(route.priority);
            const bool isPhysical = route.oifIndex == mIndices[0] || route.oifIndex == mIndices[1];
            if (route.dst.s_addr != 0 || route.mask.s_addr != 0 || !isPhysical || priority > best || priority >= 9999)
                continue;
            best = priority;
            expected = route.oifIndex == mIndices[0] ? "eth0" : "rmnet0";
        }
        char name[IF_NAMESIZE];
        unsigned size = sizeof name;
        ASSERT_EQ(PLUGIN_SUCCESS, mSocketInterface.GetPreferredInterface(size, name, nullptr));
        ASSERT_EQ(expected, name);
        if (!expected.empty()) ++mChoices;
    }

    std::mt19937 mRandom{4711};
    std::vector<std::uint32_t> mIndices;
    int mChoices = 0;
    SystemInterface mSystem;
    SocketInterface mSocketInterface;
};

TEST_F(RandomRouteTablesTest, ReaderListingAndChoiceAgreeWithTheTool)
{
    RouteBatch batch;
    std::size_t seen = 0, largest = 0;
    for (int table = 0; table < tables; ++table) {
        const unsigned wanted = table % 100 == 99 ? 2'000 + below(3'000) : below(40);
        for (unsigned i = 0; i < wanted; ++i)
            batch.add(randomRoute());
        batch.send();
        const std::vector<RouteInfo> expected = toolRoutes();
        seen += expected.size();
        largest = std::max(largest, expected.size());
        compareReader(expected);
        compareListing(expected);
        compareChoice(expected);
        ASSERT_FALSE(HasFatalFailure()) << "table " << table;
        batch.removeAll();
    }
    RecordProperty("routes", static_cast<int>(seen));
    std::printf("%d tables, %zu routes, the largest %zu, %d with a choice\n", tables, seen, largest, mChoices);
    EXPECT_GT(seen, 60'000u);
    EXPECT_GT(largest, 2'000u);
    EXPECT_GT(mChoices, tables / 2);
}

}  // namespace
