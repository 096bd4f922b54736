// SPDX-License-Identifier: Apache-2.0
//
// The results. For people line by line at once, with what could not be tested at the end, by reason; for machines as
// one JSON value at the end, or as lines of the Test Anything Protocol.
#ifndef CONFORMANCE_REPORT_H
#define CONFORMANCE_REPORT_H

#include <cstddef>
#include <memory>

#include "Promise.h"
#include "Trial.h"

namespace conformance {

class Report {
public:
    Report() = default;
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;
    virtual ~Report() = default;

    void add(const Promise& promise, const Verdict& verdict)
    {
        ++mCounts[static_cast<int>(verdict.result)];
        print(promise, verdict);
    }
    virtual void finish() = 0;
    /// True when no promise was found broken.
    bool conforms() const { return count(Result::NotOk) == 0; }

protected:
    int count(Result result) const { return mCounts[static_cast<int>(result)]; }

private:
    virtual void print(const Promise& promise, const Verdict& verdict) = 0;

    int mCounts[3] = {};
};

std::unique_ptr<Report> makeTextReport();
std::unique_ptr<Report> makeJsonReport();
/// `promiseCount` promises will be added.
std::unique_ptr<Report> makeTapReport(std::size_t promiseCount);

}  // namespace conformance

#endif
