// SPDX-License-Identifier: Apache-2.0
#include "Progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "Output.h"

namespace vpnoalctl {

namespace {

constexpr std::size_t barWidth = 30;

}  // namespace

std::string plainSize(std::uint64_t bytes)
{
    static const char* const units[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes == 1) return "1 byte";
    if (bytes < 1024) return fmt::format("{} bytes", bytes);
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    // A value that rounds to 1024 is printed in the next unit.
    for (; value >= 1023.5 && unit + 1 < std::size(units); ++unit)
        value /= 1024;
    return value < 9.95 ? fmt::format("{:.1f} {}", value, units[unit]) : fmt::format("{:.0f} {}", value, units[unit]);
}

Progress::Progress(std::FILE* stream, const std::string& label, std::uint64_t total, bool wanted)
    : mStream(stream),
      mLabel(printable(label)),
      mTotal(total),
      mShown(wanted && isatty(fileno(stream)) == 1 && (total == 0 || total > threshold))
{
}

Progress::~Progress()
{
    if (mDrawn.empty()) return;
    std::fputs("\r\x1b[K", mStream);
    std::fflush(mStream);
}

std::string Progress::text(const std::string& label, std::uint64_t done, std::uint64_t total)
{
    if (total == 0) return fmt::format("{}  {}", label, plainSize(done));
    const std::uint64_t reached = std::min(done, total);
    const auto filled = static_cast<std::size_t>(reached * barWidth / total);
    return fmt::format("{}  [{}{}]  {:3} %  {} of {}", label, std::string(filled, '#'),
                       std::string(barWidth - filled, '.'), reached * 100 / total, plainSize(reached),
                       plainSize(total));
}

void Progress::advance(std::uint64_t bytes)
{
    mDone += bytes;
    if (!mShown || (mTotal == 0 && mDone <= threshold)) return;
    std::string line = text(mLabel, mDone, mTotal);
    if (line == mDrawn) return;
    std::fputs(("\r" + line + "\x1b[K").c_str(), mStream);
    std::fflush(mStream);
    mDrawn = std::move(line);
}

}  // namespace vpnoalctl
