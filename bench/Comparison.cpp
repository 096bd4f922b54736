// SPDX-License-Identifier: Apache-2.0
#include "Comparison.h"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace bench {

namespace {

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

std::string readable(double seconds)
{
    char text[32];
    if (seconds < 1e-3) {
        std::snprintf(text, sizeof text, "%.2f us", seconds * 1e6);
    } else {
        std::snprintf(text, sizeof text, "%.3f ms", seconds * 1e3);
    }
    return text;
}

}  // namespace

Table::Table(const std::string& title)
{
    std::printf("\n%s\n%-52s %13s %13s %7s %7s\n", title.c_str(), "", "ours", "peer", "ratio", "limit");
}

Medians Table::compare(const std::string& name, double limit, const Measured& ours, const Measured& peer, int rounds)
{
    std::vector<double> ourTimes, peerTimes, ratios;
    if (rounds > 1) {
        ours();
        peer();
    }
    for (int i = 0; i < rounds; ++i) {
        // Who begins changes, so that neither always finds the caches warm.
        const bool oursFirst = i % 2 == 0;
        const double first = oursFirst ? ours() : peer();
        const double second = oursFirst ? peer() : ours();
        ourTimes.push_back(oursFirst ? first : second);
        peerTimes.push_back(oursFirst ? second : first);
        ratios.push_back(ourTimes.back() / peerTimes.back());
    }
    const double ratio = median(ratios);
    const bool isWithin = ratio <= limit;
    mWithinLimits = mWithinLimits && isWithin;
    std::printf("%-52s %13s %13s %7.2f %7.2f%s\n", name.c_str(), readable(median(ourTimes)).c_str(),
                readable(median(peerTimes)).c_str(), ratio, limit, isWithin ? "" : "  OVER");
    std::fflush(stdout);
    return {median(ourTimes), median(peerTimes)};
}

void Table::ratio(const std::string& name, double limit, double value)
{
    const bool isWithin = value <= limit;
    mWithinLimits = mWithinLimits && isWithin;
    std::printf("%-52s %13s %13s %7.2f %7.2f%s\n", name.c_str(), "", "", value, limit, isWithin ? "" : "  OVER");
    std::fflush(stdout);
}

}  // namespace bench
