// SPDX-License-Identifier: Apache-2.0
//
// A promise is one sentence of a platform header, with a check for it. A check runs in a process of its own: it may
// crash, hang and leak. It throws Broken or Untestable, or returns when the promise holds.
#ifndef CONFORMANCE_PROMISE_H
#define CONFORMANCE_PROMISE_H

#include <string>
#include <vector>

namespace conformance {

class Platform;

struct Promise {
    const char* header;
    const char* text;
    void (*check)(Platform& platform);
};

/// The promise does not hold.
struct Broken {
    std::string reason;
};
/// Whether it holds cannot be seen on this machine.
struct Untestable {
    std::string reason;
};

inline void expect(bool holds, const std::string& otherwise)
{
    if (!holds) throw Broken{otherwise};
}

using Promises = std::vector<Promise>;
const Promises& logPromises();
const Promises& powerPromises();
const Promises& busPromises();
const Promises& servicePromises();
const Promises& requestPromises();
const Promises& networkPromises();

}  // namespace conformance

#endif
