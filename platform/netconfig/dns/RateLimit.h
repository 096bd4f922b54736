// SPDX-License-Identifier: Apache-2.0
//
// Limits an action to a number of times in any time span of a given length. Values only; the caller passes the time.
#ifndef VKNETCONFIG_RATELIMIT_H
#define VKNETCONFIG_RATELIMIT_H

#include <algorithm>
#include <chrono>
#include <deque>

namespace vknetconfig {

class RateLimit {
public:
    using Clock = std::chrono::steady_clock;

    RateLimit(std::size_t times, Clock::duration span) : mTimes(times), mSpan(span) {}

    /// The earliest time from `now` on at which the action is allowed.
    Clock::time_point next(Clock::time_point now) const
    {
        return mDone.size() < mTimes ? now : std::max(now, mDone.front() + mSpan);
    }

    /// Counts an action at `now`.
    void count(Clock::time_point now)
    {
        mDone.push_back(now);
        if (mDone.size() > mTimes) mDone.pop_front();
    }

private:
    std::size_t mTimes;
    Clock::duration mSpan;
    std::deque<Clock::time_point> mDone;  // the last of them, oldest first
};

}  // namespace vknetconfig

#endif
