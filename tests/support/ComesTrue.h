// SPDX-License-Identifier: Apache-2.0
//
// Waiting for a condition. One that comes true does so at once, as a rule, and the limit is for those that do not:
// where the kernel ends many network namespaces, whatever needs its lock can wait for more than ten seconds.
#ifndef WFOAL_TEST_COMESTRUE_H
#define WFOAL_TEST_COMESTRUE_H

#include <chrono>
#include <thread>

namespace testsupport {

constexpr std::chrono::seconds longestWait{60};

/// Asks every five milliseconds, and once more when the time is up.
template <class Condition>
bool comesTrue(const Condition& condition, std::chrono::steady_clock::duration atMost = longestWait)
{
    const auto end = std::chrono::steady_clock::now() + atMost;
    while (std::chrono::steady_clock::now() < end) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

}  // namespace testsupport

#endif
