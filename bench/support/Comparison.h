// SPDX-License-Identifier: Apache-2.0
//
// Side-by-side measurement: ours and a peer run in turn in the same process, and the ratio of their times is what
// counts, since machines differ and are noisy.
#ifndef WFOAL_BENCH_COMPARISON_H
#define WFOAL_BENCH_COMPARISON_H

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace bench {

/// One run of something, which returns the seconds that count.
using Measured = std::function<double()>;

/// Seconds that `work` takes.
template <typename Work>
double secondsOf(Work&& work)
{
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

/// A run whose whole duration counts.
template <typename Work>
Measured timed(Work work)
{
    return [work = std::move(work)]() mutable { return secondsOf(work); };
}

/// For a ratio that is only shown.
constexpr double noLimit = 1e9;

/// Seconds in the middle of all rounds.
struct Medians {
    double ours;
    double peer;
};

/// Prints a table, a row a comparison, as it goes. When the environment variable BENCH_RECORDS names a file, each row
/// is also appended to it as a line of JSON, in seconds.
class Table {
public:
    explicit Table(const std::string& title);

    /// Runs both `rounds` times in turn, after one that does not count unless there is only one, and prints the medians
    /// and the median of the ratios ours/peer, which should be at most `limit`.
    Medians compare(const std::string& name, double limit, const Measured& ours, const Measured& peer, int rounds = 11);

    /// Prints a ratio that follows from earlier comparisons and should be at most `limit`.
    void ratio(const std::string& name, double limit, double value);

    /// Prints what one operation takes with lists of several sizes, and how it grows: the exponent of the size that
    /// fits best, at most `limit`.
    void growth(const std::string& name, double limit, const std::map<unsigned, double>& secondsBySize);

    /// Prints the distribution of how long something took, in seconds. The median and the 99th of 100 should be at most
    /// their limits.
    void distribution(const std::string& name, std::vector<double> times, double medianLimit, double tailLimit);

    /// Prints the distribution of a peer, which has no limit, beside the row `name`.
    void peerDistribution(const std::string& name, const std::string& peer, std::vector<double> times);

    /// Prints why a row is not measured.
    void missing(const std::string& name, const std::string& reason);

    /// Prints resident memory in KiB: all, and what no other process shares.
    void memory(const std::string& name, double all, double isPrivate);

    /// For main(): 0 when every ratio was within its limit, else 1.
    int result() const { return mWithinLimits ? 0 : 1; }

private:
    void judge(const std::string& name, const std::string& ours, const std::string& peer, double value, double limit);
    void record(const std::string& fields) const;

    std::string mTitle;
    bool mWithinLimits = true;
};

}  // namespace bench

#endif
