// SPDX-License-Identifier: Apache-2.0
#include "Debounce.h"

#include <gtest/gtest.h>

namespace connectionmanager {

namespace {

constexpr std::int64_t ms = 1000;

TEST(DebounceTest, NothingIsDueAtFirst)
{
    EXPECT_FALSE(Debounce().due());
}

TEST(DebounceTest, OneChangeIsDueAHundredMillisecondsLater)
{
    Debounce debounce;
    debounce.note(7 * ms);
    EXPECT_EQ(107 * ms, debounce.due());
}

TEST(DebounceTest, EachChangePutsItOffButNotBeyondHalfASecond)
{
    Debounce debounce;
    for (std::int64_t now = 0; now <= 350 * ms; now += 50 * ms)
        debounce.note(now);
    EXPECT_EQ(450 * ms, debounce.due());
    debounce.note(450 * ms);
    EXPECT_EQ(500 * ms, debounce.due());
}

TEST(DebounceTest, AfterALookItBeginsAnew)
{
    Debounce debounce;
    debounce.note(0);
    debounce.done();
    EXPECT_FALSE(debounce.due());
    debounce.note(450 * ms);
    EXPECT_EQ(550 * ms, debounce.due());
}

TEST(DebounceTest, TwentyChangesInASecondGiveTwoLooksAtMost)
{
    Debounce debounce;
    int looks = 0;
    for (std::int64_t now = 0; now < 3000 * ms; now += ms) {
        if (now < 1000 * ms && now % (50 * ms) == 0) debounce.note(now);
        if (debounce.due() && *debounce.due() <= now) {
            debounce.done();
            ++looks;
        }
    }
    EXPECT_LE(looks, 2);
    EXPECT_GE(looks, 1);
}

}  // namespace

}  // namespace connectionmanager
