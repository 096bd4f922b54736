// SPDX-License-Identifier: Apache-2.0
//
// The parts of the endurance run: many requests to the network-configuration library under one kind of disturbance.
// Each part has a process and private namespaces of its own (run.sh), and compares what is left at its end with what
// ip and nft printed before.
#ifndef WFOAL_ENDURANCE_H
#define WFOAL_ENDURANCE_H

#include <string>

namespace endurance {

struct Settings {
    unsigned seed = 1;
    int percent = 100;

    /// That many rounds in a full run; at least one.
    int rounds(int full) const;
};

/// What a part did: a row of the table.
class Result {
public:
    void addRounds(long count) { mRounds += count; }
    /// Counts a failure; the first ones are told on standard error.
    void fail(const std::string& what);
    void expect(bool isTrue, const std::string& what);
    /// The two are the same, or the failure says which lines differ.
    void expectSame(const std::string& before, const std::string& after, const std::string& when);
    void skip(const std::string& reason) { mSkipped = reason; }

    long rounds() const { return mRounds; }
    long failures() const { return mFailures; }
    const std::string& skipped() const { return mSkipped; }

    /// What was checked, with the figures that the part counted.
    std::string checked;

private:
    long mRounds = 0;
    long mFailures = 0;
    std::string mSkipped;
};

Result killRequests(const Settings& settings);
Result killCleanUps(const Settings& settings);
Result runCrowd(const Settings& settings);
Result killDaemons(const Settings& settings);
Result applyManyRoutes(const Settings& settings);
Result fillRun(const Settings& settings);
Result jumpClocks(const Settings& settings);
Result soak(const Settings& settings);

}  // namespace endurance

#endif
