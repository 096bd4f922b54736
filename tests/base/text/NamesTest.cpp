// SPDX-License-Identifier: Apache-2.0
#include "text/Names.h"

#include <gtest/gtest.h>

#include <string>

#include "text/Suggest.h"

using namespace wfoal;

TEST(NamesTest, InterfaceNameIsOneToFifteenPlainCharacters)
{
    for (const char* name : {"a", "eth0", "norvatun0", "wlan-0", "br_lan", "eth0.100", "...", "abcdefghijklmno"}) {
        EXPECT_TRUE(checkInterfaceName(name)) << name;
    }
}

TEST(NamesTest, RefusedInterfaceNameIsNamedWithItsReason)
{
    EXPECT_EQ(checkInterfaceName("").reason(), "an interface name must not be empty");
    EXPECT_EQ(checkInterfaceName("abcdefghijklmnop").reason(),
              "\"abcdefghijklmnop\" is longer than the 15 characters of an interface name");
    for (const std::string name : {".", "..", "eth*", "eth0 ", "eth/0", "eth0:1", "\xc3\xa9th"}) {
        const Check check = checkInterfaceName(name);
        ASSERT_FALSE(check) << name;
        EXPECT_NE(check.reason().find("is no interface name"), std::string::npos) << check.reason();
    }
    EXPECT_FALSE(checkInterfaceName(std::string_view("eth0\0", 5)));
}

TEST(NamesTest, DomainNameIsLabelsWithDotsBetween)
{
    const std::string label(63, 'a');
    for (const std::string& name : {std::string("corp.example"), std::string("a"), std::string("_tcp.corp-1.example"),
                                    label + "." + label + "." + label + "." + std::string(61, 'a')}) {
        EXPECT_TRUE(checkDomainName(name)) << name;
    }
}

TEST(NamesTest, RefusedDomainNameIsNamedWithItsReason)
{
    EXPECT_EQ(checkDomainName(std::string(254, 'a')).reason(),
              "\"" + std::string(40, 'a') + "...\" is longer than the 253 characters of a domain name");
    for (const std::string& name :
         {std::string(), std::string("."), std::string("a."), std::string(".a"), std::string("a..b"),
          std::string("-a.example"), std::string("a-.example"), std::string("a b"), std::string(64, 'a')}) {
        const Check check = checkDomainName(name);
        ASSERT_FALSE(check) << name;
        EXPECT_NE(check.reason().find("is no domain name"), std::string::npos) << check.reason();
    }
}

TEST(NamesTest, NearestNameDiffersInAThirdOfItsLettersAtMost)
{
    const struct {
        const char* word;
        const char* nearest;
    } cases[] = {
        {"abc", "abc"},      {"ABC", "abc"},
        {"abd", "abc"},      {"abxc", "abc"},
        {"ac", "abc"},       {"axy", ""},
        {"abcxy", ""},       {"routes", "routes"},
        {"route", "routes"}, {"ruotes", "routes"},
        {"ruotse", ""},      {"interface", "interfaces"},
        {"a", ""},           {"", ""},
    };
    for (const auto& example : cases)
        EXPECT_EQ(nearest(example.word, {"abc", "routes", "interfaces"}), example.nearest) << example.word;
    EXPECT_EQ(nearest("abd", {"abce", "abc", "abe"}), "abc") << "the first of the nearest";
}
