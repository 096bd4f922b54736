// SPDX-License-Identifier: Apache-2.0
#include "TimeText.h"

#include <fmt/format.h>

#include <chrono>
#include <ctime>

namespace vpnoalctl {

namespace {

// An empty format makes an empty text.
std::string formatted(std::time_t moment, const char* format)
{
    std::tm local{};
    localtime_r(&moment, &local);
    char text[40] = "";
    return {text, std::strftime(text, sizeof text, format, &local)};
}

std::string now(const char* clockFormat, const char* zoneFormat)
{
    const auto time = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()) % 1000;
    return fmt::format("{}.{:03}{}", formatted(seconds, clockFormat), milliseconds.count(),
                       formatted(seconds, zoneFormat));
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

std::string timeForPeople(std::time_t moment)
{
    return formatted(moment, "%Y-%m-%d %H:%M:%S");
}

std::string timeForMachines(std::time_t moment)
{
    return formatted(moment, "%Y-%m-%dT%H:%M:%S%z");
}

}  // namespace vpnoalctl
