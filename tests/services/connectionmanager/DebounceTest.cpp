// SPDX-License-Identifier: Apache-2.0
#include "Debounce.h"

#include <gtest/gtest.h>

namespace connectionmanager {

namespace {

constexpr std::int64_t ms = 1000;

/// How many refreshes changes give that come for a second, one each `period`, when each has the same outcome.
int refreshesOfASecond(std::int64_t period, Outcome outcome)
{
    Debounce debounce;
    int refreshes = 0;
    for (std::int64_t now = 0; now < 3000 * ms; now += ms) {
        if (now < 1000 * ms && now % period == 0) debounce.note(now);
        if (debounce.due() && *debounce.due() <= now) {
            debounce.done(outcome);
            ++refreshes;
        }
    }
    EXPECT_FALSE(debounce.due()) << "the last change is not forgotten";
    return refreshes;
}

TEST(DebounceTest, NothingIsDueAtFirst)
{
    EXPECT_FALSE(Debounce().due());
}

TEST(DebounceTest, FirstChangeIsDueAtOnce)
{
    Debounce debounce;
    debounce.note(7 * ms);
    EXPECT_EQ(8 * ms, debounce.due());
    debounce.note(7 * ms + 900);
    EXPECT_EQ(8 * ms, debounce.due()) << "more changes do not put it off";
}

TEST(DebounceTest, ChangesAfterAPushAreGathered)
{
    Debounce debounce;
    debounce.note(0);
    debounce.done(Outcome::Pushed);
    EXPECT_FALSE(debounce.due());
    for (std::int64_t now = 50 * ms; now <= 350 * ms; now += 50 * ms)
        debounce.note(now);
    EXPECT_EQ(450 * ms, debounce.due());
    for (std::int64_t now = 400 * ms; now <= 1000 * ms; now += 50 * ms)
        debounce.note(now);
    EXPECT_EQ(1050 * ms, debounce.due()) << "a second after the first of them";
    debounce.done(Outcome::Same);
    debounce.note(1060 * ms);
    EXPECT_EQ(1160 * ms, debounce.due()) << "the burst goes on";
}

TEST(DebounceTest, RefreshesThatFindTheSameStatusDoNotDelayTheNextMuch)
{
    Debounce debounce;
    std::int64_t now = 0;
    for (const std::int64_t pause : {1, 2, 4, 8, 16, 32, 64, 100, 100}) {
        debounce.note(now);
        EXPECT_EQ(now + pause * ms, debounce.due());
        now += 50 * ms;
        debounce.done(Outcome::Same);
    }
}

TEST(DebounceTest, AQuietTimeEndsTheBurst)
{
    Debounce debounce;
    debounce.note(0);
    debounce.done(Outcome::Pushed);
    debounce.note(99 * ms);
    EXPECT_EQ(199 * ms, debounce.due());
    debounce.done(Outcome::Pushed);
    debounce.note(199 * ms);
    EXPECT_EQ(200 * ms, debounce.due());
}

TEST(DebounceTest, AHeldStatusWaitsForAQuietTime)
{
    Debounce debounce;
    debounce.note(0);
    EXPECT_TRUE(debounce.mayHold(ms));
    debounce.done(Outcome::Held);
    EXPECT_EQ(100 * ms, debounce.due());
    debounce.note(20 * ms);
    EXPECT_EQ(22 * ms, debounce.due()) << "what follows is judged at once";
    debounce.done(Outcome::Held);
    EXPECT_EQ(120 * ms, debounce.due());
    EXPECT_TRUE(debounce.mayHold(119 * ms));
    EXPECT_FALSE(debounce.mayHold(120 * ms));
    debounce.done(Outcome::Pushed);
    EXPECT_FALSE(debounce.due());
}

TEST(DebounceTest, NothingIsHeldForMoreThanASecond)
{
    Debounce debounce;
    for (std::int64_t now = 0; now < 1000 * ms; now += 50 * ms) {
        debounce.note(now);
        EXPECT_TRUE(debounce.mayHold(now));
        debounce.done(Outcome::Held);
    }
    debounce.note(1000 * ms);
    EXPECT_FALSE(debounce.mayHold(1000 * ms));
}

TEST(DebounceTest, TwentyChangesInASecondArePushedTwiceAtMost)
{
    EXPECT_EQ(2, refreshesOfASecond(50 * ms, Outcome::Pushed));
}

TEST(DebounceTest, AThousandChangesInASecondAreLookedAtSeldom)
{
    EXPECT_EQ(2, refreshesOfASecond(ms, Outcome::Pushed));
    EXPECT_LE(refreshesOfASecond(ms, Outcome::Same), 20);
    EXPECT_GE(refreshesOfASecond(ms, Outcome::Same), 10);
}

TEST(DebounceTest, SlowChangesAreEachJudgedAtOnce)
{
    EXPECT_EQ(10, refreshesOfASecond(100 * ms, Outcome::Pushed));
    EXPECT_EQ(4, refreshesOfASecond(250 * ms, Outcome::Pushed));
}

}  // namespace

}  // namespace connectionmanager
