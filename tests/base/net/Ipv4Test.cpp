// SPDX-License-Identifier: Apache-2.0
#include "net/Ipv4.h"

#include <gtest/gtest.h>

#include "AddressForm.h"

using namespace wfoal;
using testsupport::onThisMachine;

TEST(Ipv4Test, HexAddressIsTheNetworkOrderReadAsHostInteger)
{
    ASSERT_TRUE(parseHexAddress("0x0a01a8c0"));
    EXPECT_EQ(dotted(*parseHexAddress(onThisMachine("0x0a01a8c0"))), "192.168.1.10");
    EXPECT_EQ(dotted(*parseHexAddress(onThisMachine("0x00FFFFFF"))), "255.255.255.0");
}

TEST(Ipv4Test, HexAddressNeedsItsPrefixAndEightDigits)
{
    for (const char* text : {"", "0x", "0x0a01a8c", "0x0a01a8c00", "0X0a01a8c0", "000a01a8c0", "0x0a01a8cg",
                             "0x-a01a8c0", "0x+a01a8c0", "0x 0a01a8c", "192.168.1.10"}) {
        EXPECT_FALSE(parseHexAddress(text)) << text;
    }
}

TEST(Ipv4Test, DottedAddressIsFourPlainNumbers)
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

TEST(Ipv4Test, EveryByteIsWrittenInDecimal)
{
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        const std::string text = std::to_string(byte);
        EXPECT_EQ(dotted(Ipv4Address::fromNumber(byte << 24 | byte << 8)), text + ".0." + text + ".0");
        EXPECT_EQ(dotted(Ipv4Address::fromNumber(byte << 16 | byte)), "0." + text + ".0." + text);
    }
}

TEST(Ipv4Test, PrefixLengthOfEveryNetmaskAndBack)
{
    for (int prefix = 0; prefix <= 32; ++prefix) {
        const auto length = static_cast<std::uint8_t>(prefix);
        EXPECT_EQ(prefixLength(netmaskOf(length)), length);
    }
    EXPECT_EQ(dotted(netmaskOf(12)), "255.240.0.0");
}

TEST(Ipv4Test, NetmaskWithHolesHasNoPrefixLength)
{
    for (const char* text : {"255.0.255.0", "0.255.255.255", "255.255.255.1", "0.0.0.1", "254.255.0.0"}) {
        EXPECT_FALSE(prefixLength(*parseDottedAddress(text))) << text;
    }
}

TEST(Ipv4Test, NetworkIsAnAddressAloneOrWithPrefixLengthOrNetmask)
{
    const struct {
        const char* text;
        const char* shown;
    } cases[] = {
        {"10.8.0.1", "10.8.0.1/32"},    {"10.8.0.0/24", "10.8.0.0/24"},
        {"10.8.0.7/24", "10.8.0.7/24"}, {"10.8.0.0/255.255.254.0", "10.8.0.0/23"},
        {"0.0.0.0/0", "0.0.0.0/0"},     {"1.2.3.4/32", "1.2.3.4/32"},
    };
    for (const auto& [text, shown] : cases) {
        const auto network = parseNetwork(text);
        ASSERT_TRUE(network) << text;
        EXPECT_EQ(withPrefix(*network), shown);
    }
}

TEST(Ipv4Test, RefusedNetworkIsNamedWithItsReason)
{
    const struct {
        std::string_view text;
        const char* reason;
    } cases[] = {
        {"", "\"\" is no IPv4 address"},
        {"10.8.0", "\"10.8.0\" is no IPv4 address"},
        {"10.8.0.0/", "\"\" is neither a prefix length from 0 to 32 nor a netmask"},
        {"10.8.0.0/33", "\"33\" is neither a prefix length from 0 to 32 nor a netmask"},
        {"10.8.0.0/-1", "\"-1\" is neither a prefix length from 0 to 32 nor a netmask"},
        {"10.8.0.0/08", "\"08\" is neither a prefix length from 0 to 32 nor a netmask"},
        {"10.8.0.0/24/8", "\"24/8\" is neither a prefix length from 0 to 32 nor a netmask"},
        {"10.8.0.0/255.0.255.0", "netmask \"255.0.255.0\" has holes"},
        {std::string_view("10.8.0.1\0x", 10), "\"10.8.0.1?x\" is no IPv4 address"},
    };
    for (const auto& [text, reason] : cases) {
        const auto network = parseNetwork(text);
        ASSERT_FALSE(network) << text;
        EXPECT_EQ(network.reason(), reason);
    }
}

TEST(Ipv4Test, NetworkContainsWhatSharesItsPrefix)
{
    const Ipv4Network network = *parseNetwork("10.8.2.7/23");
    EXPECT_EQ(dotted(network.base()), "10.8.2.0");
    EXPECT_EQ(dotted(network.mask()), "255.255.254.0");
    EXPECT_TRUE(network.contains(*parseDottedAddress("10.8.3.255")));
    EXPECT_FALSE(network.contains(*parseDottedAddress("10.8.4.0")));
    EXPECT_TRUE(parseNetwork("0.0.0.0/0")->contains(*parseDottedAddress("203.0.113.1")));
}

TEST(Ipv4Test, NumberIsTheSameOnEveryMachine)
{
    EXPECT_EQ(parseDottedAddress("10.0.0.1")->number(), 0x0a000001U);
    EXPECT_EQ(dotted(Ipv4Address::fromNumber(0xc0a8010aU)), "192.168.1.10");
}
