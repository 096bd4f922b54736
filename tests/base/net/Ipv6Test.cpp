// SPDX-License-Identifier: Apache-2.0
#include "net/Ipv6.h"

#include <gtest/gtest.h>

using namespace wfoal;

TEST(Ipv6Test, NetworkIsAnAddressAloneOrWithPrefixLength)
{
    const struct {
        const char* text;
        const char* shown;
        const char* base;
    } cases[] = {
        {"::", "::/128", "::"},
        {"::/0", "::/0", "::"},
        {"2001:DB8::1", "2001:db8::1/128", "2001:db8::1"},
        {"2001:db8:ffff::1/33", "2001:db8:ffff::1/33", "2001:db8:8000::"},
        {"fe80::1/10", "fe80::1/10", "fe80::"},
        {"::ffff:192.0.2.1/96", "::ffff:192.0.2.1/96", "::ffff:0.0.0.0"},
    };
    for (const auto& example : cases) {
        const Result<Ipv6Network> network = parseIpv6Network(example.text);
        ASSERT_TRUE(network) << example.text;
        EXPECT_EQ(withPrefix(*network), example.shown);
        EXPECT_EQ(textOf(network->base()), example.base);
        EXPECT_TRUE(*parseIpv6Network(withPrefix(*network)) == *network);
    }
}

TEST(Ipv6Test, WrongTextIsNamed)
{
    const std::string withNul("::1\0", 4);
    const struct {
        std::string text;
        const char* reason;
    } cases[] = {
        {"", "\"\" is no IPv6 address"},
        {"192.0.2.1", "\"192.0.2.1\" is no IPv6 address"},
        {"fe80::1%eth0", "\"fe80::1%eth0\" is no IPv6 address"},
        {withNul, "\"::1?\" is no IPv6 address"},
        {std::string(60, '1'), "\"1111111111111111111111111111111111111111...\" is no IPv6 address"},
        {"::/", "\"\" is no prefix length from 0 to 128"},
        {"::/129", "\"129\" is no prefix length from 0 to 128"},
        {"::/064", "\"064\" is no prefix length from 0 to 128"},
        {"::/ffff::", "\"ffff::\" is no prefix length from 0 to 128"},
    };
    for (const auto& example : cases) {
        const Result<Ipv6Network> network = parseIpv6Network(example.text);
        ASSERT_FALSE(network) << example.text;
        EXPECT_EQ(network.reason(), example.reason);
    }
}
