// SPDX-License-Identifier: Apache-2.0
#include "dns/RateLimit.h"

#include <gtest/gtest.h>

using namespace vknetconfig;
using namespace std::chrono_literals;

TEST(RateLimitTest, SoManyTimesInASpanAndThenWhenTheFirstIsOver)
{
    RateLimit limit(2, 60s);
    const RateLimit::Clock::time_point start(1000s);
    EXPECT_EQ(limit.next(start), start);
    limit.count(start);
    EXPECT_EQ(limit.next(start + 10s), start + 10s);
    limit.count(start + 10s);
    EXPECT_EQ(limit.next(start + 20s), start + 60s);
    EXPECT_EQ(limit.next(start + 65s), start + 65s);
    limit.count(start + 65s);
    EXPECT_EQ(limit.next(start + 66s), start + 70s) << "the second one counts now";
}
