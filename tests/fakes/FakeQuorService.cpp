// SPDX-License-Identifier: Apache-2.0
#include "FakeQuorService.h"

#include <cstdlib>
#include <cstring>
#include <deque>

#include "FakeCalls.h"

namespace fakes {

BusState& bus()
{
    static BusState* state = new BusState;
    return *state;
}

namespace {

std::string text(const char* value)
{
    return value != nullptr ? value : "(null)";
}

thread_local const QSError* sInitialised = nullptr;  // the record made ready last, until a call is given it

bool outcome(const char* operation, const std::string& arguments, QSError* error)
{
    recordCall(std::string(operation) + (arguments.empty() ? "" : " ") + arguments);
    bus().errorWasInitialised = error != nullptr && error == sInitialised;
    sInitialised = nullptr;
    if (bus().onOperation) bus().onOperation(operation);
    if (bus().failing != operation) return true;
    if (error != nullptr) {
        ++bus().errorsFilled;
        *error = QSError{-7, strdup("refused"), "bus.c", 42, "bus_function"};
    }
    return false;
}

}  // namespace

}  // namespace fakes

using fakes::outcome;
using fakes::text;

extern "C" bool QSErrorInit(QSError* error)
{
    ++fakes::bus().errorsInitialised;
    fakes::sInitialised = error;
    *error = QSError{};
    return true;
}

extern "C" void QSErrorFree(QSError* error)
{
    if (error->message != nullptr) ++fakes::bus().errorsFreed;
    std::free(error->message);
    *error = QSError{};
}

extern "C" bool QSRegister(const char* name, QSHandle** handle, QSError* error)
{
    if (!outcome("QSRegister", text(name), error)) return false;
    // Never released: the code under test may keep any of them.
    static int sCount = 0;
    static std::deque<QSHandle>* sHandles = new std::deque<QSHandle>;
    *handle = &sHandles->emplace_back(QSHandle{++sCount});
    return true;
}

extern "C" bool QSUnregister(QSHandle* handle, QSError* error)
{
    fakes::bus().handle = handle;
    return outcome("QSUnregister", "", error);
}

extern "C" bool QSGmainAttach(QSHandle* handle, _GMainLoop* loop, QSError* error)
{
    fakes::bus().handle = handle;
    fakes::bus().loop = loop;
    return outcome("QSGmainAttach", "", error);
}

extern "C" bool QSRegisterServerStatus(QSHandle* handle, const char* service, QSServerStatusCallback callback,
                                       void* userData, QSError* error)
{
    fakes::bus().handle = handle;
    if (!outcome("QSRegisterServerStatus", text(service), error)) return false;
    fakes::bus().statusCallback = callback;
    fakes::bus().statusUserData = userData;
    fakes::bus().watchedService = text(service);
    return true;
}

extern "C" bool QSCall(QSHandle* handle, const char* uri, const char* payload, QSReplyCallback callback, void* userData,
                       QSMessageToken* token, QSError* error)
{
    fakes::bus().handle = handle;
    if (!outcome("QSCall", text(uri) + " " + text(payload), error)) return false;
    fakes::bus().calls.push_back({handle, text(uri), text(payload), callback, userData, token != nullptr});
    if (fakes::bus().onCall) fakes::bus().onCall(fakes::BusCall(fakes::bus().calls.back()));
    return true;
}

extern "C" const char* QSMessageGetPayload(QSMessage* message)
{
    return message->payload;
}

extern "C" QSMessageToken QSMessageGetResponseToken(QSMessage* message)
{
    return message->token;
}

extern "C" bool QSRegisterCategory(QSHandle* handle, const char* category, QSMethod* methods, QSSignal* signals,
                                   QSProperty* properties, QSError* error)
{
    fakes::bus().handle = handle;
    fakes::bus().noSignalsOrProperties = signals == nullptr && properties == nullptr;
    fakes::bus().methods = methods;
    return outcome("QSRegisterCategory", text(category), error);
}

extern "C" bool QSMessageGetSenderUid(QSMessage*, unsigned int* uid)
{
    *uid = 0;
    return true;
}

extern "C" bool QSMessageReply(QSHandle*, QSMessage*, const char* payload, QSError* error)
{
    return outcome("QSMessageReply", text(payload), error);
}

extern "C" bool QSSubscriptionAdd(QSHandle*, const char* key, QSMessage*, QSError* error)
{
    return outcome("QSSubscriptionAdd", text(key), error);
}

extern "C" bool QSSubscriptionReply(QSHandle* handle, const char* key, const char* payload, QSError* error)
{
    fakes::bus().handle = handle;
    return outcome("QSSubscriptionReply", text(key) + " " + text(payload), error);
}
