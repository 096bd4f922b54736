// SPDX-License-Identifier: Apache-2.0
//
// When changes that come in bursts are to be looked at: 100 ms after the last one, but 500 ms after the first at the
// latest. Times are microseconds of one clock.
#ifndef CONMAN_DEBOUNCE_H
#define CONMAN_DEBOUNCE_H

#include <algorithm>
#include <cstdint>
#include <optional>

namespace conman {

class Debounce {
public:
    static constexpr std::int64_t quiet = 100'000;
    static constexpr std::int64_t longest = 500'000;

    void note(std::int64_t now)
    {
        if (!mFirst) mFirst = now;
        mLast = now;
    }
    /// Nothing when there is nothing to look at.
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

}  // namespace conman

#endif
