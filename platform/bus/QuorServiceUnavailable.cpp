// SPDX-License-Identifier: Apache-2.0
//
// The service bus of a platform that has none: every operation says so in its error record.
#include <cstdlib>
#include <cstring>

#include "quorservice.h"

namespace {

bool notAvailable(QSError* error, const char* function)
{
    if (error != nullptr) {
        error->error_code = QS_ERROR_NOT_AVAILABLE;
        error->message = strdup("the service bus is not available");
        error->file = "platform/bus/QuorServiceUnavailable.cpp";
        error->line = 0;
        error->func = function;
    }
    return false;
}

}  // namespace

extern "C" bool QSErrorInit(QSError* error)
{
    *error = QSError{};
    return true;
}

extern "C" void QSErrorFree(QSError* error)
{
    if (error == nullptr) return;
    std::free(error->message);
    *error = QSError{};
}

extern "C" bool QSRegister(const char*, QSHandle**, QSError* error)
{
    return notAvailable(error, __func__);
}

extern "C" bool QSUnregister(QSHandle*, QSError* error)
{
    return notAvailable(error, __func__);
}

extern "C" bool QSGmainAttach(QSHandle*, _GMainLoop*, QSError* error)
{
    return notAvailable(error, __func__);
}

extern "C" bool QSRegisterServerStatus(QSHandle*, const char*, QSServerStatusCallback, void*, QSError* error)
{
    return notAvailable(error, __func__);
}

extern "C" bool QSCall(QSHandle*, const char*, const char*, QSReplyCallback, void*, QSMessageToken*, QSError* error)
{
    return notAvailable(error, __func__);
}

extern "C" const char* QSMessageGetPayload(QSMessage*)
{
    return nullptr;
}

extern "C" QSMessageToken QSMessageGetResponseToken(QSMessage*)
{
    return 0;
}

extern "C" bool QSRegisterCategory(QSHandle*, const char*, QSMethod*, QSSignal*, QSProperty*, QSError* error)
{
    return notAvailable(error, __func__);
}

extern "C" bool QSMessageReply(QSHandle*, QSMessage*, const char*, QSError* error)
{
    return notAvailable(error, __func__);
}

extern "C" bool QSSubscriptionAdd(QSHandle*, const char*, QSMessage*, QSError* error)
{
    return notAvailable(error, __func__);
}

extern "C" bool QSSubscriptionReply(QSHandle*, const char*, const char*, QSError* error)
{
    return notAvailable(error, __func__);
}
