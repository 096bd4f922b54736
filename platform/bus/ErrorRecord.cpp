// SPDX-License-Identifier: Apache-2.0
#include "ErrorRecord.h"

#include <cstdlib>
#include <cstring>

namespace quor {

bool report(const Failure& failure, const char* function, QSError* error)
{
    if (error != nullptr)
        *error = {failure.code, strdup(failure.message.c_str()), failure.file, failure.line, function};
    return false;
}

}  // namespace quor

extern "C" bool QSErrorInit(QSError* error)
{
    if (error != nullptr) *error = QSError{};
    return true;
}

extern "C" void QSErrorFree(QSError* error)
{
    if (error == nullptr) return;
    std::free(error->message);
    *error = QSError{};
}
