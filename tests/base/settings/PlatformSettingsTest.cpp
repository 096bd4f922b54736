// SPDX-License-Identifier: Apache-2.0
#include "settings/PlatformSettings.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <regex>

#include "io/WholeFile.h"

using namespace wfoal;

namespace {

std::string networksOf(const PlatformSettings& settings)
{
    std::string text;
    for (const Ipv4Network& network : settings.bypass.ipv4)
        text += withPrefix(network) + " ";
    for (const Ipv6Network& network : settings.bypass.ipv6)
        text += withPrefix(network) + " ";
    return text;
}

std::string faultOf(std::string_view text)
{
    const Result<PlatformSettings> settings = parsePlatformSettings(text);
    return settings ? "none" : settings.reason();
}

}  // namespace

TEST(PlatformSettingsTest, WithoutAFileOrALineEverythingHasItsDefault)
{
    for (const Result<PlatformSettings>& settings :
         {readPlatformSettings("/tmp/none.conf"), readPlatformSettings("/tmp/none/none.conf"),
          parsePlatformSettings(""), parsePlatformSettings("\n  # nothing\n\t\r\n")}) {
        ASSERT_TRUE(settings);
        EXPECT_TRUE(settings->hasIpv6Guard);
        EXPECT_FALSE(settings->isStrict);
        EXPECT_EQ(networksOf(*settings), "");
    }
}

// Copied as it is, it changes nothing; with every line that it offers, it is valid.
TEST(PlatformSettingsTest, PackagedExampleShowsTheDefaults)
{
    const Result<std::string> example = readWhole(WFOAL_SOURCE_DIR "/packaging/settings/platform.conf");
    ASSERT_TRUE(example) << example.reason();
    const Result<PlatformSettings> asItIs = parsePlatformSettings(*example);
    ASSERT_TRUE(asItIs) << asItIs.reason();
    const std::string offered = std::regex_replace(*example, std::regex("#([a-z6-]+ = )"), "$1");
    const Result<PlatformSettings> all = parsePlatformSettings(offered);
    ASSERT_TRUE(all) << all.reason();
    for (const Result<PlatformSettings>& settings : {asItIs, all}) {
        EXPECT_TRUE(settings->hasIpv6Guard);
        EXPECT_FALSE(settings->isStrict);
    }
    EXPECT_EQ(networksOf(*asItIs), "");
    EXPECT_EQ(networksOf(*all), "192.0.2.0/24 2001:db8::/32 ");
    for (const char* key : {"ipv6-guard = on\n", "strict = off\n", "bypass = "})
        EXPECT_NE(offered.find(key), std::string::npos) << key;
}

TEST(PlatformSettingsTest, EverySettingIsRead)
{
    std::ofstream("/tmp/platform.conf")
        << "# guard\nipv6-guard=off\r\n  strict =\ton # as a comment\n"
           "bypass = 192.0.2.7/24, 2001:db8:1::7/48\nbypass=10.0.0.0/255.0.0.0\nbypass=\n"
           "bypass = ::1 198.51.100.1";
    const Result<PlatformSettings> settings = readPlatformSettings("/tmp/platform.conf");
    ASSERT_TRUE(settings) << settings.reason();
    EXPECT_FALSE(settings->hasIpv6Guard);
    EXPECT_TRUE(settings->isStrict);
    EXPECT_EQ(networksOf(*settings), "192.0.2.0/24 10.0.0.0/8 198.51.100.1/32 2001:db8:1::/48 ::1/128 ");
}

TEST(PlatformSettingsTest, WrongLineIsNamedWithItsNumber)
{
    EXPECT_EQ(faultOf("strict = on\nguard = on\n"), "line 2: \"guard\" is none of ipv6-guard, strict, bypass");
    EXPECT_EQ(faultOf("strict\n"), "line 1: \"strict\" is no \"KEY = VALUE\"");
    EXPECT_EQ(faultOf("[guard]\n"), "line 1: \"[guard]\" is no \"KEY = VALUE\"");
    EXPECT_EQ(faultOf("= on"), "line 1: \"\" is none of ipv6-guard, strict, bypass");
    EXPECT_EQ(faultOf("\n\nstrict = yes"), "line 3: strict: \"yes\" is neither on nor off");
    EXPECT_EQ(faultOf("ipv6-guard ="), "line 1: ipv6-guard: \"\" is neither on nor off");
    EXPECT_EQ(faultOf("bypass = 10.0.0.0/8, nowhere"), "line 1: bypass: \"nowhere\" is no IPv4 address");
    EXPECT_EQ(faultOf("bypass = ::1/200"), "line 1: bypass: \"200\" is no prefix length from 0 to 128");
    EXPECT_EQ(faultOf(std::string("strict = on\0", 12)), "line 1: strict: \"on?\" is neither on nor off");
}

TEST(PlatformSettingsTest, FileThatCannotBeReadIsAFaultAndNotTheDefault)
{
    mkdir("/tmp/folder.conf", 0700);
    EXPECT_EQ(readPlatformSettings("/tmp/folder.conf").reason(), "/tmp/folder.conf: Is a directory");
    std::ofstream("/tmp/large.conf") << std::string(65537, '#');
    EXPECT_EQ(readPlatformSettings("/tmp/large.conf").reason(), "/tmp/large.conf: more than 64 KiB");
    std::ofstream("/tmp/whole.conf") << std::string(65536, '#');
    EXPECT_TRUE(readPlatformSettings("/tmp/whole.conf"));
    std::ofstream("/tmp/wrong.conf") << "strict = 1";
    EXPECT_EQ(readPlatformSettings("/tmp/wrong.conf").reason(),
              "/tmp/wrong.conf: line 1: strict: \"1\" is neither on nor off");
}
