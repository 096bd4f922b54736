// SPDX-License-Identifier: Apache-2.0
#include "Comparison.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <utility>
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

std::string number(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", value);
    return text;
}

}  // namespace

Table::Table(const std::string& title) : mTitle(title)
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
    const Medians medians{median(ourTimes), median(peerTimes)};
    judge(name, readable(medians.ours), readable(medians.peer), ratio, limit);
    record("\"name\":\"" + name + "\",\"ours\":" + number(medians.ours) + ",\"peer\":" + number(medians.peer) +
           ",\"ratio\":" + number(ratio) + ",\"limit\":" + number(limit));
    return medians;
}

void Table::ratio(const std::string& name, double limit, double value)
{
    judge(name, "", "", value, limit);
    record("\"name\":\"" + name + "\",\"ratio\":" + number(value) + ",\"limit\":" + number(limit));
}

void Table::growth(const std::string& name, double limit, const std::map<unsigned, double>& secondsBySize)
{
    double count = 0, sumX = 0, sumY = 0, sumXX = 0, sumXY = 0;
    std::string points;
    for (const auto& [size, seconds] : secondsBySize) {
        const double x = std::log(size);
        const double y = std::log(seconds);
        ++count;
        sumX += x;
        sumY += y;
        sumXX += x * x;
        sumXY += x * y;
        points += (points.empty() ? "[" : ",[") + std::to_string(size) + "," + number(seconds) + "]";
        std::printf("%-52s %13s\n", (name + ", " + std::to_string(size)).c_str(), readable(seconds).c_str());
    }
    const double exponent = (count * sumXY - sumX * sumY) / (count * sumXX - sumX * sumX);
    judge(name + ": exponent", "", "", exponent, limit);
    record("\"name\":\"" + name + "\",\"exponent\":" + number(exponent) + ",\"limit\":" + number(limit) +
           ",\"points\":[" + points + "]");
}

void Table::distribution(const std::string& name, std::vector<double> times, double medianLimit, double tailLimit)
{
    std::sort(times.begin(), times.end());
    const double middle = times[times.size() / 2];
    const double tail = times[times.size() * 99 / 100];
    const bool isWithin = middle <= medianLimit && tail <= tailLimit;
    mWithinLimits = mWithinLimits && isWithin;
    const auto withLimit = [](double value, double limit) {
        return readable(value) + (limit < noLimit ? " (limit " + readable(limit) + ")" : "");
    };
    std::printf("%s: median %s, 99 of 100 within %s, from %s to %s%s\n", name.c_str(),
                withLimit(middle, medianLimit).c_str(), withLimit(tail, tailLimit).c_str(),
                readable(times.front()).c_str(), readable(times.back()).c_str(), isWithin ? "" : "  OVER");
    record("\"name\":\"" + name + "\",\"median\":" + number(middle) + ",\"tail\":" + number(tail) +
           ",\"limit\":" + number(medianLimit) + ",\"tailLimit\":" + number(tailLimit));
}

void Table::peerDistribution(const std::string& name, const std::string& peer, std::vector<double> times)
{
    distribution(name + ", to " + peer, std::move(times), noLimit, noLimit);
}

void Table::missing(const std::string& name, const std::string& reason)
{
    std::printf("%s: not measured: %s\n", name.c_str(), reason.c_str());
    record("\"name\":\"" + name + "\",\"missing\":\"" + reason + "\"");
}

void Table::memory(const std::string& name, double all, double isPrivate)
{
    std::printf("%-52s %9.0f KiB, %.0f KiB private\n", name.c_str(), all, isPrivate);
    record("\"name\":\"" + name + "\",\"all\":" + number(all) + ",\"private\":" + number(isPrivate));
}

void Table::judge(const std::string& name, const std::string& ours, const std::string& peer, double value, double limit)
{
    const bool isWithin = value <= limit;
    mWithinLimits = mWithinLimits && isWithin;
    std::printf("%-52s %13s %13s %7.2f", name.c_str(), ours.c_str(), peer.c_str(), value);
    if (limit < noLimit) std::printf(" %7.2f%s", limit, isWithin ? "" : "  OVER");
    std::printf("\n");
    std::fflush(stdout);
}

void Table::record(const std::string& fields) const
{
    const char* const path = std::getenv("BENCH_RECORDS");
    if (path != nullptr) std::ofstream(path, std::ios::app) << "{\"title\":\"" << mTitle << "\"," << fields << "}\n";
}

}  // namespace bench
