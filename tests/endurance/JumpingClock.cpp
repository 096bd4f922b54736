// SPDX-License-Identifier: Apache-2.0
//
// For LD_PRELOAD: the wall clock is up to ten years ahead or behind, by another amount at each look. Clocks that cannot
// be set stay as they are. JUMPING_CLOCK_SEED begins the random amounts.
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <random>

namespace {

time_t jump()
{
    static const char* const seed = std::getenv("JUMPING_CLOCK_SEED");
    static thread_local std::mt19937 random(seed == nullptr ? 1 : static_cast<unsigned>(std::atol(seed)));
    constexpr time_t tenYears = 10L * 365 * 24 * 3600;
    return std::uniform_int_distribution<time_t>(-tenYears, tenYears)(random);
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* result) noexcept
{
    const int status = static_cast<int>(syscall(SYS_clock_gettime, clock, result));
    if (status == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) result->tv_sec += jump();
    return status;
}

int gettimeofday(timeval* result, void* zone) noexcept
{
    const int status = static_cast<int>(syscall(SYS_gettimeofday, result, zone));
    if (status == 0) result->tv_sec += jump();
    return status;
}

time_t time(time_t* result) noexcept
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (result != nullptr) *result = now.tv_sec;
    return now.tv_sec;
}
}
