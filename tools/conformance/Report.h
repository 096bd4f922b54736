// SPDX-License-Identifier: Apache-2.0
//
// The results: for people line by line at once, for machines as one JSON value at the end.
#ifndef CONFORMANCE_REPORT_H
#define CONFORMANCE_REPORT_H

#include "Promise.h"
#include "Trial.h"
#include "handles/Json.h"

namespace conformance {

class Report {
public:
    explicit Report(bool json);

    void add(const Promise& promise, const Verdict& verdict);
    void finish();
    /// True when no promise was found broken.
    bool conforms() const { return mCounts[static_cast<int>(Result::NotOk)] == 0; }

private:
    bool mJson;
    JsonPtr mPromises;
    int mCounts[3] = {};
};

}  // namespace conformance

#endif
