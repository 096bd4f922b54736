// SPDX-License-Identifier: Apache-2.0
//
// Name classes and the names of indices.
#include "Decisions/InterfaceNames.h"

#include <gmock/gmock.h>

#include "FakeVkLog.h"
#include "Faults.h"
#include "InterfaceIndex.h"

namespace {

using testing::ElementsAre;
using testsupport::Call;
using testsupport::Fault;

struct NameCase {
    const char* name;
    bool wifi, wan, tunnel, usb, bridge;
};

TEST(InterfaceNamesTest, EachNameHasItsClass)
{
    const NameCase cases[] = {
        {"eth", true, false, false, false, false},      {"eth0", true, false, false, false, false},
        {"eth0:1", true, false, false, false, false},   {"ethernet", true, false, false, false, false},
        {"et", false, false, false, false, false},      {"Eth0", false, false, false, false, false},
        {"xeth0", false, false, false, false, false},   {"ppp0", false, true, false, false, false},
        {"rmnet0", false, true, false, false, false},   {"rmne", false, false, false, false, false},
        {"wwan0", false, true, false, false, false},    {"norvatun0", false, false, true, false, false},
        {"norvatun", false, false, true, false, false}, {"usb0", false, false, false, true, false},
        {"bridge0", false, false, false, false, true},  {"br0", false, false, false, false, false},
        {"lo", false, false, false, false, false},      {"wlan0", false, false, false, false, false},
        {"tun0", false, false, false, false, false},    {"dummy0", false, false, false, false, false},
        {"", false, false, false, false, false},
    };
    for (const NameCase& c : cases) {
        EXPECT_EQ(c.wifi, isWiFi(c.name)) << c.name;
        EXPECT_EQ(c.wan, isWan(c.name)) << c.name;
        EXPECT_EQ(c.tunnel, isVirtual(c.name)) << c.name;
        EXPECT_EQ(c.usb, isUsbNet(c.name)) << c.name;
        EXPECT_EQ(c.bridge, isBridge(c.name)) << c.name;
    }
}

TEST(InterfaceNamesTest, NameShorterThanThePrefixNeverMatches)
{
    EXPECT_TRUE(isIf("eth", "eth"));
    EXPECT_FALSE(isIf("et", "eth"));
    EXPECT_FALSE(isIf("", "eth"));
    EXPECT_TRUE(isIf("eth", ""));
}

TEST(InterfaceNamesTest, IndexOfTheLoopbackDeviceHasItsName)
{
    fakes::clearLog();
    EXPECT_EQ("lo", getIfNameFromIndex(1));
    EXPECT_THAT(fakes::logLines(), ElementsAre(fakes::LogLine{7, "getIfNameFromIndex: index for lo is 1"}));
}

TEST(InterfaceNamesTest, IndexWithoutAnInterfaceIsLoggedAndEmpty)
{
    fakes::clearLog();
    EXPECT_EQ("", getIfNameFromIndex(0));
    EXPECT_EQ("", getIfNameFromIndex(-1));
    const fakes::LogLine line{3, "getIfNameFromIndex: ioctl err 19"};
    EXPECT_THAT(fakes::logLines(), ElementsAre(line, line));
}

TEST(InterfaceNamesTest, FailedSocketIsLoggedWithItsTrailingNewline)
{
    fakes::clearLog();
    const Fault fault(Call::Socket, 1, EMFILE);
    EXPECT_EQ("", getIfNameFromIndex(1));
    EXPECT_THAT(fakes::logLines(), ElementsAre(fakes::LogLine{3, "getIfNameFromIndex: socket err 24\n"}));
}

TEST(InterfaceNamesTest, CacheLooksEachIndexUpOnce)
{
    wfoal::InterfaceNameCache names;
    EXPECT_EQ("lo", names.nameOf(1));
    EXPECT_EQ("", names.nameOf(0));
    const Fault fault(Call::NameOfIndex, 1, ENXIO, 100);
    EXPECT_EQ("lo", names.nameOf(1));
    EXPECT_EQ("", names.nameOf(0));
    EXPECT_EQ("", names.nameOf(0));
    EXPECT_FALSE(fault.hasStruck());
}

TEST(InterfaceNamesTest, RequestHoldsAtMostSixteenBytesOfAName)
{
    const ifreq request = wfoal::requestFor("0123456789abcdefgh");
    EXPECT_EQ("0123456789abcdef", std::string(request.ifr_name, sizeof request.ifr_name));
    EXPECT_EQ(0, request.ifr_ifindex);
}

}  // namespace
