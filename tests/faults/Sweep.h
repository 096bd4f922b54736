// SPDX-License-Identifier: Apache-2.0
//
// The 1st, 2nd, 3rd … call of each function fails, once and from then on, until the operation ends without a failing
// call. After each: the result, the state, what the process holds, and the next call.
#ifndef WFOAL_FAULTS_SWEEP_H
#define WFOAL_FAULTS_SWEEP_H

#include <string>

#include "Operation.h"

namespace faults {

/// What a process holds.
struct Holdings {
    long descriptors = 0;
    long threads = 0;
    long locks = 0;
    long blocks = 0;

    static Holdings of(const Operation& operation);
    Holdings operator-(const Holdings& other) const;
    /// In everything at most as much as the other.
    bool isWithin(const Holdings& other) const;
    std::string text() const;
};

struct Place {
    int function = 1;
    bool isForEver = false;
    long number = 1;
};

class Sweep {
public:
    /// Every call up to the `dense`-th of a function fails in turn, and of later ones every second, third …, so that
    /// each factor of e has `dense` more.
    Sweep(const Entry& entry, Operation& operation, long dense);

    /// The calls of the operation without a fault, and what it keeps each time. Throws a Finding when it does not work.
    void warmUp();
    /// Prints a line for each thing that happens. Begins at `place`; up to the end of that function when `isAlone`.
    /// Throws a Finding when it has printed one: what follows would only show what that left.
    void run(Place place, bool isAlone);

private:
    void runFunction(Place place);
    bool attempt(const Place& place);
    int cycle(const Disturbance& disturbance, const Place* place);
    void expectNextCallToWork();
    void expectNoLeak(const Place& place, const Holdings& before);
    void report(const Place& place, const std::string& finding);

    const Entry& mEntry;
    Operation& mOperation;
    long mDense;
    Holdings mKept;  // by two cycles without a fault
    long mStruck = 0;
    long mRefused = 0;
};

}  // namespace faults

#endif
