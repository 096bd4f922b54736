// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "Broken.h"
#include "quorservice.h"

namespace {

// A call whose replies pass through here. Never released: replies may come late.
struct Intercepted {
    QSReplyCallback callback;
    void* userData;
};

bool deliver(QSHandle* handle, QSMessage* message, void* data)
{
    const auto& call = *static_cast<Intercepted*>(data);
    if (broken("no reply")) return true;
    if (broken("replies on another thread")) {
        std::thread([&] { call.callback(handle, message, call.userData); }).join();
        return true;
    }
    call.callback(handle, message, call.userData);
    if (broken("every reply twice")) call.callback(handle, message, call.userData);
    return true;
}

}  // namespace

extern "C" bool QSErrorInit(QSError* error)
{
    if (broken("init leaves the record")) return true;
    return REAL(QSErrorInit)(error);
}

extern "C" void QSErrorFree(QSError* error)
{
    if (broken("free leaves the record") && error != nullptr) return;
    if (broken("free of null crashes") && error == nullptr) std::abort();
    REAL(QSErrorFree)(error);
}

extern "C" bool QSRegister(const char* name, QSHandle** handle, QSError* error)
{
    if (broken("a name for everybody")) return REAL(QSRegister)(nullptr, handle, error);
    if (broken("a descriptor a handle")) leakDescriptor();
    if (broken("errors crash without a record") && handle == nullptr) error->error_code = -1;
    const bool done = REAL(QSRegister)(name, handle, error);
    if (broken("failure clears the handle") && !done && handle != nullptr) *handle = nullptr;
    if (broken("failure without a message") && !done && error != nullptr) REAL(QSErrorFree)(error);
    return done;
}

extern "C" bool QSUnregister(QSHandle* handle, QSError* error)
{
    if (broken("unregister leaves the connection") && handle != nullptr) return true;
    if (broken("unregister does not wait") && handle != nullptr) {
        std::thread([handle] { real<decltype(QSUnregister)>("QSUnregister")(handle, nullptr); }).detach();
        return true;
    }
    return REAL(QSUnregister)(handle, error);
}

extern "C" bool QSGmainAttach(QSHandle* handle, _GMainLoop* loop, QSError* error)
{
    const bool done = REAL(QSGmainAttach)(handle, loop, error);
    return done || (broken("attached twice") && loop != nullptr && handle != nullptr);
}

extern "C" bool QSRegisterServerStatus(QSHandle* handle, const char* service, QSServerStatusCallback callback,
                                       void* userData, QSError* error)
{
    if (broken("status is never told") && handle != nullptr) return true;
    return REAL(QSRegisterServerStatus)(handle, service, callback, userData, error);
}

extern "C" bool QSCall(QSHandle* handle, const char* uri, const char* payload, QSReplyCallback callback, void* userData,
                       QSMessageToken* token, QSError* error)
{
    if (broken("anything is called") && handle != nullptr) return true;
    if (broken("null callback refused") && callback == nullptr) return false;
    if (broken("wrong error code")) {
        const bool done = REAL(QSCall)(handle, uri, payload, callback, userData, token, error);
        if (!done && error != nullptr) error->error_code = -22;
        return done;
    }
    if (broken("replies from inside the call") && callback != nullptr && handle != nullptr) {
        if (token != nullptr) *token = 1;
        callback(handle, nullptr, userData);
        return true;
    }
    QSMessageToken given = 0;
    const bool done = callback == nullptr ? REAL(QSCall)(handle, uri, payload, nullptr, nullptr, &given, error)
                                          : REAL(QSCall)(handle, uri, payload, deliver,
                                                         new Intercepted{callback, userData}, &given, error);
    if (done && token != nullptr) *token = broken("one token for all") ? 7 : given;
    return done;
}

extern "C" const char* QSMessageGetPayload(QSMessage* message)
{
    if (message == nullptr && broken("null message has a payload")) return "{}";
    return REAL(QSMessageGetPayload)(message);
}

extern "C" QSMessageToken QSMessageGetResponseToken(QSMessage* message)
{
    if (broken("replies without their token")) return 0;
    return REAL(QSMessageGetResponseToken)(message);
}

extern "C" bool QSRegisterCategory(QSHandle* handle, const char* category, QSMethod* methods, QSSignal* signals,
                                   QSProperty* properties, QSError* error)
{
    if (broken("any table is taken") && handle != nullptr && methods == nullptr) return true;
    if (broken("one category for all")) category = "/";
    return REAL(QSRegisterCategory)(handle, category, methods, signals, properties, error);
}

extern "C" bool QSMessageGetSenderUid(QSMessage* request, unsigned int* uid)
{
    const bool done = REAL(QSMessageGetSenderUid)(request, uid);
    if (broken("everybody is user 4711") && done) *uid = 4711;
    return done;
}

extern "C" bool QSMessageReply(QSHandle* handle, QSMessage* request, const char* payload, QSError* error)
{
    if (broken("answers are empty")) payload = "{}";
    return REAL(QSMessageReply)(handle, request, payload, error);
}

extern "C" bool QSSubscriptionAdd(QSHandle* handle, const char* key, QSMessage* request, QSError* error)
{
    const bool done = REAL(QSSubscriptionAdd)(handle, key, request, error);
    return done || (broken("subscriptions without limit") && handle != nullptr);
}

extern "C" bool QSSubscriptionReply(QSHandle* handle, const char* key, const char* payload, QSError* error)
{
    if (broken("pushes get lost") && handle != nullptr && payload != nullptr) return true;
    if (broken("every push twice")) REAL(QSSubscriptionReply)(handle, key, payload, nullptr);
    if (broken("push without subscriber fails") && handle != nullptr) return false;
    return REAL(QSSubscriptionReply)(handle, key, payload, error);
}
