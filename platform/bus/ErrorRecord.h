// SPDX-License-Identifier: Apache-2.0
//
// Failures on their way into an error record.
#ifndef QUOR_ERRORRECORD_H
#define QUOR_ERRORRECORD_H

#include <string>

#include "quorservice.h"

namespace quor {

/// Why an operation failed: a negative errno value or one of QSError's own codes. Code 0: it did not.
struct Failure {
    int code = 0;
    std::string message;
    const char* file = "";
    int line = 0;

    explicit operator bool() const { return code != 0; }
};

/// Copies a failure into the caller's record, which may be null. Always false.
bool report(const Failure& failure, const char* function, QSError* error);

}  // namespace quor

#define QUOR_FAILURE(code, message) (quor::Failure{code, message, __FILE__, __LINE__})

#endif
