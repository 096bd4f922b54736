// SPDX-License-Identifier: Apache-2.0
#include "TimeText.h"

#include <fmt/format.h>

#include <chrono>
#include <ctime>

namespace vpnoalctl {

namespace {

std::string now(const char* clockFormat, const char* zoneFormat)
{
    const auto time = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()) % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char clock[32] = "";
    char zone[8] = "";
    std::strftime(clock, sizeof clock, clockFormat, &local);
    if (*zoneFormat != '\0') std::strftime(zone, sizeof zone, zoneFormat, &local);
    return fmt::format("{}.{:03}{}", clock, milliseconds.count(), zone);
}

}  // namespace

std::string timeForPeople()
{
    return now("%H:%M:%S", "");
}

std::string timeForMachines()
{
    return now("%Y-%m-%dT%H:%M:%S", "%z");
}

}  // namespace vpnoalctl
