// SPDX-License-Identifier: Apache-2.0
//
// Memory that runs out on the thread of a main loop.
#ifndef WFOAL_TEST_LOOPSHORTAGE_H
#define WFOAL_TEST_LOOPSHORTAGE_H

#include <optional>

#include "AllocationFaults.h"
#include "LoopThread.h"

namespace testsupport {

/// While it lives, the nth allocation (from 1) of the loop's thread fails; GLib's own are spared.
class LoopShortage {
public:
    LoopShortage(LoopThread& thread, int nth) : mThread(thread)
    {
        mThread.call([this, nth] { mFault.emplace(nth, false); });
    }
    LoopShortage(const LoopShortage&) = delete;
    LoopShortage& operator=(const LoopShortage&) = delete;
    ~LoopShortage()
    {
        mThread.call([this] { mFault.reset(); });
    }

    /// False when the nth allocation has not come yet.
    bool hasStruck() const
    {
        bool hasStruck = false;
        mThread.call([&] { hasStruck = mFault->hasStruck(); });
        return hasStruck;
    }

private:
    LoopThread& mThread;
    std::optional<faults::AllocationFault> mFault;
};

}  // namespace testsupport

#endif
