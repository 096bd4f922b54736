// SPDX-License-Identifier: Apache-2.0
//
// The environment's settings of the log.
#include "LogSettings.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

int levelWith(const char* text)
{
    setenv("VKLOG_LEVEL", text, 1);
    const int level = vklog::levelFromEnvironment();
    unsetenv("VKLOG_LEVEL");
    return level;
}

TEST(LogSettingsTest, LevelIsSixWhenNothingIsSet)
{
    unsetenv("VKLOG_LEVEL");
    EXPECT_EQ(6, vklog::levelFromEnvironment());
}

TEST(LogSettingsTest, LevelIsOneDigitFromZeroToSeven)
{
    for (int level = 0; level <= 7; ++level)
        EXPECT_EQ(level, levelWith(std::to_string(level).c_str()));
}

TEST(LogSettingsTest, LevelThatMakesNoSenseIsSix)
{
    for (const char* text : {"", "8", "9", "-1", "06", "77", "7 ", " 7", "debug", "3x"}) {
        EXPECT_EQ(6, levelWith(text)) << '"' << text << '"';
    }
}

TEST(LogSettingsTest, OnlyTheExactWordAsksForStderr)
{
    unsetenv("VKLOG_TARGET");
    EXPECT_FALSE(vklog::stderrRequested());
    setenv("VKLOG_TARGET", "stderr", 1);
    EXPECT_TRUE(vklog::stderrRequested());
    for (const char* text : {"", "STDERR", "stderr ", "journal"}) {
        setenv("VKLOG_TARGET", text, 1);
        EXPECT_FALSE(vklog::stderrRequested()) << '"' << text << '"';
    }
    unsetenv("VKLOG_TARGET");
}

}  // namespace
