// SPDX-License-Identifier: Apache-2.0
//
// Measuring in a process of its own, so that what is left in the heap does not weigh on the next measurement.
#ifndef WFOAL_BENCH_APART_H
#define WFOAL_BENCH_APART_H

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <type_traits>

#include "Require.h"
#include "handles/UniqueFd.h"

namespace bench {

/// Runs `work` in a child and returns its result, which is a plain value.
template <typename Result, typename Work>
Result apart(Work work)
{
    static_assert(std::is_trivially_copyable_v<Result>);
    int ends[2];
    require(pipe2(ends, O_CLOEXEC) == 0, "pipe");
    const UniqueFd reading(ends[0]);
    const UniqueFd writing(ends[1]);
    std::fflush(stdout);
    const pid_t child = fork();
    require(child >= 0, "fork");
    if (child == 0) {
        const Result result = work();
        std::fflush(stdout);
        _exit(write(writing.get(), &result, sizeof result) == static_cast<ssize_t>(sizeof result) ? 0 : 2);
    }
    int status = 0;
    require(waitpid(child, &status, 0) == child && status == 0, "measuring");
    Result result{};
    require(read(reading.get(), &result, sizeof result) == static_cast<ssize_t>(sizeof result), "measuring");
    return result;
}

}  // namespace bench

#endif
