// SPDX-License-Identifier: Apache-2.0
#include "kernel/Ipv4.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

using namespace vknetconfig;

TEST(Ipv4, HexAddressIsTheNetworkOrderReadAsHostInteger)
{
    ASSERT_TRUE(parseHexAddress("0x0a01a8c0"));
    EXPECT_EQ(dotted(*parseHexAddress("0x0a01a8c0")), "192.168.1.10");
    EXPECT_EQ(dotted(*parseHexAddress("0x00FFFFFF")), "255.255.255.0");
}

TEST(Ipv4, HexAddressNeedsItsPrefixAndEightDigits)
{
    for (const char* text : {"", "0x", "0x0a01a8c", "0x0a01a8c00", "0X0a01a8c0", "000a01a8c0", "0x0a01a8cg",
                             "0x-a01a8c0", "0x+a01a8c0", "0x 0a01a8c", "192.168.1.10"}) {
        EXPECT_FALSE(parseHexAddress(text)) << text;
    }
}

TEST(Ipv4, DottedAddressIsFourPlainNumbers)
{
    for (const char* text : {"0.0.0.0", "10.8.0.1", "255.255.255.255"}) {
        ASSERT_TRUE(parseDottedAddress(text)) << text;
        EXPECT_EQ(dotted(*parseDottedAddress(text)), text);
    }
    for (const char* text :
         {"", ".", "10", "10.8.0", "10.8.0.", "10.8.0.1.", "10.8.0.1.2", "10.8.0.256", "10.8.0.01", "10.8.0.-1",
          "10.8.0.+1", " 10.8.0.1", "10.8.0.1 ", "10..0.1", "0x0a.8.0.1", "10.8.0.1/8"}) {
        EXPECT_FALSE(parseDottedAddress(text)) << text;
    }
}

TEST(Ipv4, PrefixLengthOfEveryNetmaskAndBack)
{
    for (int prefix = 0; prefix <= 32; ++prefix) {
        const auto length = static_cast<std::uint8_t>(prefix);
        EXPECT_EQ(prefixLength(netmaskOf(length)), length);
    }
    EXPECT_EQ(dotted(netmaskOf(12)), "255.240.0.0");
}

TEST(Ipv4, NetmaskWithHolesHasNoPrefixLength)
{
    for (const char* text : {"255.0.255.0", "0.255.255.255", "255.255.255.1", "0.0.0.1", "254.255.0.0"}) {
        EXPECT_FALSE(prefixLength(*parseDottedAddress(text))) << text;
    }
}
