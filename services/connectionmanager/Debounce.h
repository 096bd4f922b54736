// SPDX-License-Identifier: Apache-2.0
//
// The time of the refresh after a burst of changes: 100 ms after the last one, at most 500 ms after the first. Times
// are microseconds of one clock.
#ifndef CONNECTIONMANAGER_DEBOUNCE_H
#define CONNECTIONMANAGER_DEBOUNCE_H

#include <algorithm>
#include <cstdint>
#include <optional>

namespace connectionmanager {

class Debounce {
public:
    static constexpr std::int64_t quiet = 100'000;
    static constexpr std::int64_t longest = 500'000;

    void note(std::int64_t now)
    {
        if (!mFirst) mFirst = now;
        mLast = now;
    }
    /// None when no change is pending.
    std::optional<std::int64_t> due() const
    {
        if (!mFirst) return std::nullopt;
        return std::min(mLast + quiet, *mFirst + longest);
    }
    void done() { mFirst.reset(); }

private:
    std::optional<std::int64_t> mFirst;
    std::int64_t mLast = 0;
};

}  // namespace connectionmanager

#endif
