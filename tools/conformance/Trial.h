// SPDX-License-Identifier: Apache-2.0
//
// Tries one promise in a process of its own.
#ifndef CONFORMANCE_TRIAL_H
#define CONFORMANCE_TRIAL_H

#include <string>

#include "Platform.h"
#include "Promise.h"

namespace conformance {

enum class Result { Ok, NotOk, NotTestable };

struct Verdict {
    Result result = Result::Ok;
    std::string reason;  // empty when it holds
};

/// Throws std::system_error when the process cannot be made. The caller must have one thread only.
Verdict tryPromise(const Promise& promise, const Settings& settings);

}  // namespace conformance

#endif
