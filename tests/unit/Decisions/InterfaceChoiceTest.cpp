// SPDX-License-Identifier: Apache-2.0
//
// The choice of the physical interface on plain values.
#include "Decisions/InterfaceChoice.h"

#include <gmock/gmock.h>

#include <map>
#include <random>
#include <vector>

namespace {

using wfoal::RouteVerdict;

struct Default {
    const char* name;
    std::uint32_t priority;
};

// Routes of which the nth leaves through the interface with index n.
class InterfaceChoiceTest : public testing::Test {
protected:
    void add(const char* name, std::uint32_t priority, std::uint32_t destination = 0, std::uint32_t mask = 0)
    {
        RouteInfo route{};
        route.oifIndex = static_cast<std::uint32_t>(mNames.size());
        route.priority = priority;
        route.dst.s_addr = destination;
        route.mask.s_addr = mask;
        route.table = 254;
        mNames.emplace_back(name);
        mRoutes.push_back(route);
    }

    wfoal::InterfaceChoice choose()
    {
        mPointers.clear();
        for (const RouteInfo& route : mRoutes)
            mPointers.push_back(&route);
        return wfoal::chooseInterface(mPointers.data(), mPointers.size(),
                                      [this](std::uint32_t index) { return mNames.at(index); });
    }

    std::string chosen(std::initializer_list<Default> defaults)
    {
        mRoutes.clear();
        mNames.clear();
        for (const Default& route : defaults)
            add(route.name, route.priority);
        return choose().name;
    }

    std::vector<RouteVerdict> verdicts()
    {
        const wfoal::InterfaceChoice choice = choose();
        std::vector<RouteVerdict> all;
        for (const RouteInfo& route : mRoutes)
            all.push_back(verdictOn(route, mNames[route.oifIndex], choice));
        return all;
    }

    std::vector<std::string> mNames;
    std::vector<RouteInfo> mRoutes;
    std::vector<const RouteInfo*> mPointers;
};

TEST_F(InterfaceChoiceTest, LowestPriorityWins)
{
    EXPECT_EQ("eth0", chosen({{"rmnet0", 10}, {"eth0", 5}}));
    EXPECT_EQ("rmnet0", chosen({{"rmnet0", 10}, {"eth0", 20}}));
}

TEST_F(InterfaceChoiceTest, NoRouteIsNoInterface)
{
    EXPECT_EQ("", chosen({}));
    EXPECT_EQ(nullptr, choose().route);
}

TEST_F(InterfaceChoiceTest, TunnelUsbAndBridgeAreNeverChosen)
{
    for (const char* name : {"usb0", "norvatun0", "bridge0", "wlan0", "tun0", "lo", "", "et"}) {
        EXPECT_EQ("", chosen({{name, 0}})) << name;
        EXPECT_EQ("ppp0", chosen({{name, 0}, {"ppp0", 7}})) << name;
        EXPECT_EQ("ppp0", chosen({{"ppp0", 7}, {name, 0}})) << name;
    }
}

TEST_F(InterfaceChoiceTest, EveryPhysicalClassIsChosen)
{
    for (const char* name : {"rmnet0", "ppp0", "wwan0", "eth0", "eth"})
        EXPECT_EQ(name, chosen({{name, 0}}));
}

TEST_F(InterfaceChoiceTest, LaterOfEqualPrioritiesWins)
{
    EXPECT_EQ("eth1", chosen({{"eth0", 5}, {"eth1", 5}}));
    EXPECT_EQ("eth1", chosen({{"eth0", 5}, {"eth1", 5}, {"usb0", 5}}));
}

TEST_F(InterfaceChoiceTest, Priority9998IsTheHighestThatIsChosen)
{
    EXPECT_EQ("eth0", chosen({{"eth0", 9998}}));
    EXPECT_EQ("", chosen({{"eth0", 9999}}));
    EXPECT_EQ("", chosen({{"eth0", 10000}}));
}

TEST_F(InterfaceChoiceTest, PriorityIsComparedAsASignedNumber)
{
    EXPECT_EQ("eth0", chosen({{"eth0", 0xffffffff}, {"rmnet0", 0}}));
    EXPECT_EQ("eth0", chosen({{"rmnet0", 0x80000001}, {"eth0", 0x80000000}}));
}

TEST_F(InterfaceChoiceTest, RouteWithADestinationOrAMaskIsNoDefaultRoute)
{
    add("eth0", 0, 0, 0x80);  // 0.0.0.0/1
    add("eth1", 0, 0x01020304, 0);
    add("eth2", 0, 0x01020304, 0xff);
    EXPECT_EQ("", choose().name);
}

TEST_F(InterfaceChoiceTest, NamesAreAskedForOnlyOfCandidates)
{
    add("eth0", 3, 1, 1);
    add("eth1", 7);
    add("eth2", 5);
    add("eth3", 9999);
    for (const RouteInfo& route : mRoutes)
        mPointers.push_back(&route);
    std::vector<std::uint32_t> asked;
    wfoal::chooseInterface(mPointers.data(), mPointers.size(), [&](std::uint32_t index) {
        asked.push_back(index);
        return std::string("eth");
    });
    EXPECT_EQ(std::vector<std::uint32_t>{2}, asked);
}

TEST_F(InterfaceChoiceTest, VerdictsNameTheReason)
{
    add("eth0", 5);
    add("usb0", 1);
    add("rmnet0", 7);
    add("eth1", 5);
    add("eth2", 9999);
    add("eth3", 5, 0, 0x80);
    const std::vector<RouteVerdict> expected = {RouteVerdict::LostTie,         RouteVerdict::OtherInterface,
                                                RouteVerdict::HigherPriority,  RouteVerdict::Chosen,
                                                RouteVerdict::PriorityTooHigh, RouteVerdict::NotADefaultRoute};
    EXPECT_EQ(expected, verdicts());
}

TEST_F(InterfaceChoiceTest, VerdictsWithoutAChoice)
{
    add("eth0", 10000);
    add("norvatun0", 0);
    EXPECT_EQ((std::vector<RouteVerdict>{RouteVerdict::PriorityTooHigh, RouteVerdict::OtherInterface}), verdicts());
}

// The trivial model: all candidates, sorted; the first one is it.
std::string modelChoice(const std::vector<RouteInfo>& routes, const std::vector<std::string>& names)
{
    std::map<std::pair<long, long>, std::string> ranking;
    for (std::size_t i = 0; i < routes.size(); ++i) {
        const std::string& name = names[routes[i].oifIndex];
        const long priority = static_cast<std::int32_t>(routes[i].priority);
        bool physical = false;
        for (const std::string prefix : {"rmnet", "ppp", "wwan", "eth"}) {
            physical = physical || name.substr(0, prefix.size()) == prefix;
        }
        if (routes[i].dst.s_addr == 0 && routes[i].mask.s_addr == 0 && physical && priority < 9999) {
            ranking[{priority, -static_cast<long>(i)}] = name;
        }
    }
    return ranking.empty() ? "" : ranking.begin()->second;
}

TEST_F(InterfaceChoiceTest, HundredThousandRandomTablesAgreeWithTheModel)
{
    std::mt19937 random(20240613);
    mNames = {"", "lo", "eth0", "eth1", "rmnet0", "ppp0", "wwan0", "usb0", "norvatun0", "bridge0", "wlan0", "et", "pp"};
    const std::uint32_t priorities[] = {0, 1, 2, 5, 10, 9997, 9998, 9999, 10000, 0x7fffffff, 0x80000000, 0xffffffff};
    int chosenTables = 0;
    for (int table = 0; table < 100'000; ++table) {
        mRoutes.assign(random() % 12, RouteInfo{});
        for (RouteInfo& route : mRoutes) {
            route.oifIndex = static_cast<std::uint32_t>(random() % mNames.size());
            route.priority = priorities[random() % std::size(priorities)];
            if (random() % 4 == 0) route.dst.s_addr = static_cast<in_addr_t>(random());
            if (random() % 4 == 0) route.mask.s_addr = static_cast<in_addr_t>(random());
        }
        const wfoal::InterfaceChoice choice = choose();
        ASSERT_EQ(modelChoice(mRoutes, mNames), choice.name) << "table " << table;
        ASSERT_EQ(choice.name.empty(), choice.route == nullptr);
        if (choice.route == nullptr) continue;
        ++chosenTables;
        ASSERT_EQ(mNames[choice.route->oifIndex], choice.name);
    }
    EXPECT_GT(chosenTables, 50'000);
}

}  // namespace
