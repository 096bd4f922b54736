// SPDX-License-Identifier: Apache-2.0
#include "undolog/GuardRules.h"

#include <gtest/gtest.h>

#include "json/JsonError.h"

using namespace wfoal;

namespace {

constexpr char everything[] =
    "interface norvatun0\nreject ipv4\nreject ipv6\nbypass 192.0.2.0/24\nbypass 2001:db8::/32\n"
    "connection 17 1194 198.51.100.7/32\nconnection 6 443 2001:db8:9::7/128\n";

std::string faultOf(std::string_view text)
{
    try {
        GuardRules::decode(text);
        return "none";
    } catch (const JsonError& error) {
        return error.what();
    }
}

}  // namespace

TEST(GuardRulesTest, EntryIsReadAsItWasWritten)
{
    const GuardRules rules = GuardRules::decode(everything);
    EXPECT_EQ(rules.encode(), everything);
    EXPECT_TRUE(rules.rejectsIpv4);
    EXPECT_TRUE(rules.rejectsIpv6);
    EXPECT_EQ(rules.ipv6Connections.at(0).port, 443);
    EXPECT_FALSE(GuardRules::decode("interface vpn0\n").rejectsIpv6);
}

TEST(GuardRulesTest, WrongEntryIsRefused)
{
    for (const char* text :
         {"", "table\n", "interface vpn0", "interface \n", "interface vpn0\nreject ipx\n", "interface vpn0\nbypass\n",
          "interface vpn0\nbypass 10.0.0.0/33\n", "interface vpn0\nconnection 17 70000 10.0.0.1/32\n",
          "interface vpn0\nconnection 17 10.0.0.1/32\n", "interface vpn0\nconnection 300 1 ::1\n"}) {
        EXPECT_EQ(faultOf(text).find("undo log: guard: unexpected "), 0U) << text << " | " << faultOf(text);
    }
}
