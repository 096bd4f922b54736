// SPDX-License-Identifier: Apache-2.0
//
// When the status is refreshed after changes. The first change after a quiet time is judged at once, and so are those
// that follow until a status was pushed, with longer and longer pauses. After a push, the changes of the same burst are
// gathered. A burst ends with a quiet time. Times are microseconds of one clock.
#ifndef CONNECTIONMANAGER_DEBOUNCE_H
#define CONNECTIONMANAGER_DEBOUNCE_H

#include <algorithm>
#include <cstdint>
#include <optional>

namespace connectionmanager {

/// What a refresh led to: the status of before; one that is pushed only when nothing follows; one that was pushed.
enum class Outcome { Same, Held, Pushed };

class Debounce {
public:
    static constexpr std::int64_t settling = 1'000;  // lets the kernel finish what belongs together
    static constexpr std::int64_t quiet = 100'000;
    static constexpr std::int64_t longest = 1'000'000;  // until a push, in a burst that does not end

    void note(std::int64_t now)
    {
        if (!mLast || now - *mLast >= quiet) beginBurst(now);
        if (!mFirst) mFirst = now;
        mLast = now;
    }
    /// None when no refresh is due.
    std::optional<std::int64_t> due() const
    {
        if (mFirst && mHasPushed) return std::min(*mLast + quiet, *mFirst + longest);
        if (mFirst) return *mFirst + mPause;
        if (mIsHeld) return *mLast + quiet;
        return std::nullopt;
    }
    /// Whether a new status may wait for what follows.
    bool mayHold(std::int64_t now) const { return mLast && now < *mLast + quiet && now < mBegin + longest; }

    void done(Outcome outcome)
    {
        mFirst.reset();
        mIsHeld = outcome == Outcome::Held;
        mHasPushed = mHasPushed || outcome == Outcome::Pushed;
        mPause = std::min(2 * mPause, quiet);
    }

private:
    void beginBurst(std::int64_t now)
    {
        mBegin = now;
        mHasPushed = false;
        mPause = settling;
    }

    std::int64_t mBegin = 0;
    std::optional<std::int64_t> mFirst;  // since the last refresh
    std::optional<std::int64_t> mLast;
    std::int64_t mPause = settling;
    bool mIsHeld = false;
    bool mHasPushed = false;  // in this burst
};

}  // namespace connectionmanager

#endif
