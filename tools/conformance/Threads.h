// SPDX-License-Identifier: Apache-2.0
//
// The same work on several threads at once.
#ifndef CONFORMANCE_THREADS_H
#define CONFORMANCE_THREADS_H

#include <thread>
#include <vector>

namespace conformance {

/// Runs task(0) to task(count - 1), each on a thread of its own, and waits for all.
template <class Task>
void onThreads(int count, const Task& task)
{
    std::vector<std::thread> threads;
    threads.reserve(static_cast<std::size_t>(count));
    for (int number = 0; number < count; ++number)
        threads.emplace_back([&task, number] { task(number); });
    for (std::thread& thread : threads)
        thread.join();
}

}  // namespace conformance

#endif
