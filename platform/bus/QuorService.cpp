// SPDX-License-Identifier: Apache-2.0
//
// The service bus on D-Bus: checks the arguments, and has the handle do the work on its loop's thread.
#include "quorservice.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "Handle.h"
#include "Message.h"
#include "Payload.h"
#include "Sender.h"
#include "ServiceUri.h"

namespace {

using quor::Failure;

Failure badArgument(const std::string& what, int line)
{
    return {QS_ERROR_BAD_ARGUMENT, what, __FILE__, line};
}
#define BAD_ARGUMENT(what) badArgument(what, __LINE__)

// No exception leaves the library.
template <typename Operation>
bool perform(const char* function, QSError* error, Operation operation)
{
    Failure failure;
    try {
        failure = operation();
    } catch (const std::bad_alloc&) {
        failure = QUOR_FAILURE(-ENOMEM, "out of memory");
    }
    return failure ? quor::report(failure, function, error) : true;
}

template <typename Operation>
bool perform(const char* function, QSHandle* handle, QSError* error, Operation operation)
{
    return perform(function, error, [&]() -> Failure {
        const std::shared_ptr<QSHandle> found = QSHandle::find(handle);
        if (found == nullptr) return QUOR_FAILURE(QS_ERROR_BAD_HANDLE, "no such handle");
        return operation(*found);
    });
}

// Of a reply or push.
Failure checkPayload(const char* payload)
{
    if (payload == nullptr || !quor::isValidUtf8(payload)) return BAD_ARGUMENT("the payload is no UTF-8 text");
    if (quor::isTooLarge(payload)) return BAD_ARGUMENT(quor::tooLarge("payload"));
    return {};
}

Failure fromErrno(int result, const char* what, int line)
{
    if (result >= 0) return {};
    return {result, std::string(what) + ": " + std::strerror(-result), __FILE__, line};
}

bool isMethodTable(const QSMethod* methods)
{
    if (methods == nullptr) return false;
    for (; methods->name != nullptr; ++methods) {
        if (methods->function == nullptr || !quor::isMethodName(methods->name)) return false;
    }
    return true;
}

// Runs after the destructors of the library's users, so that unloading leaves no connection.
__attribute__((destructor)) void closeHandles()
{
    QSHandle::closeAll();
}

}  // namespace

extern "C" bool QSRegister(const char* name, QSHandle** handle, QSError* error)
{
    return perform(__func__, error, [&]() -> Failure {
        if (handle == nullptr) return BAD_ARGUMENT("no place for the handle");
        return QSHandle::open(name, *handle);
    });
}

extern "C" bool QSUnregister(QSHandle* handle, QSError* error)
{
    return perform(__func__, error, [&]() -> Failure {
        if (!QSHandle::close(handle)) return QUOR_FAILURE(QS_ERROR_BAD_HANDLE, "no such handle");
        return {};
    });
}

extern "C" bool QSGmainAttach(QSHandle* handle, _GMainLoop* loop, QSError* error)
{
    return perform(__func__, handle, error, [&](QSHandle& self) -> Failure {
        if (loop == nullptr) return BAD_ARGUMENT("no main loop");
        return self.attach(loop);
    });
}

extern "C" bool QSRegisterServerStatus(QSHandle* handle, const char* service, QSServerStatusCallback callback,
                                       void* user_data, QSError* error)
{
    return perform(__func__, handle, error, [&](QSHandle& self) -> Failure {
        if (service == nullptr || sd_bus_service_name_is_valid(service) <= 0) {
            return BAD_ARGUMENT("the service is no bus name");
        }
        if (callback == nullptr) return BAD_ARGUMENT("no callback");
        self.connection().post([&self, name = std::string(service), callback, user_data] {
            self.watches().add(self.connection().bus(), name, callback, user_data);
        });
        return {};
    });
}

extern "C" bool QSCall(QSHandle* handle, const char* uri, const char* payload, QSReplyCallback callback,
                       void* user_data, QSMessageToken* token, QSError* error)
{
    return perform(__func__, handle, error, [&](QSHandle& self) -> Failure {
        const auto address = quor::parseServiceUri(uri != nullptr ? uri : "");
        if (!address) return BAD_ARGUMENT("the URI is not vesk://SERVICE/CATEGORY.../METHOD");
        const char* const text = payload != nullptr ? payload : "";
        if (quor::isTooLarge(text)) return BAD_ARGUMENT(quor::tooLarge("payload"));
        const auto parsed = quor::parseRequest(text);
        if (!parsed) return BAD_ARGUMENT("the payload is no JSON object");
        quor::CallRequest request{*address, text, parsed->subscribes, {callback, user_data, self.newToken()}};
        // Before the call is sent: the reply may arrive before this function returns.
        if (token != nullptr) *token = request.recipient.token;
        self.connection().run([&self, request = std::move(request)] { self.calls().start(request); });
        return {};
    });
}

extern "C" const char* QSMessageGetPayload(QSMessage* message)
{
    return message != nullptr ? message->payload : nullptr;
}

extern "C" QSMessageToken QSMessageGetResponseToken(QSMessage* message)
{
    return message != nullptr ? message->token : 0;
}

extern "C" bool QSRegisterCategory(QSHandle* handle, const char* category, QSMethod* methods, QSSignal*, QSProperty*,
                                   QSError* error)
{
    return perform(__func__, handle, error, [&](QSHandle& self) -> Failure {
        if (category == nullptr || sd_bus_object_path_is_valid(category) <= 0) {
            return BAD_ARGUMENT("the category is no path");
        }
        if (!isMethodTable(methods)) return BAD_ARGUMENT("the method table has an entry that cannot be called");
        self.connection().run(
            [&self, path = std::string(category), methods] { self.service().addCategory(path, methods); });
        return {};
    });
}

extern "C" bool QSMessageGetSenderUid(QSMessage* request, unsigned int* uid)
{
    if (request == nullptr || request->request == nullptr || uid == nullptr) return false;
    const auto user = quor::senderUser(request->request);
    if (user) *uid = *user;
    return user.has_value();
}

extern "C" bool QSMessageReply(QSHandle* handle, QSMessage* request, const char* payload, QSError* error)
{
    return perform(__func__, handle, error, [&](QSHandle& self) -> Failure {
        if (request == nullptr) return BAD_ARGUMENT("no request");
        if (Failure failure = checkPayload(payload)) return failure;
        return fromErrno(self.service().reply(*request, payload), "the request cannot be answered", __LINE__);
    });
}

extern "C" bool QSSubscriptionAdd(QSHandle* handle, const char* key, QSMessage* request, QSError* error)
{
    return perform(__func__, handle, error, [&](QSHandle& self) -> Failure {
        if (key == nullptr || request == nullptr) return BAD_ARGUMENT("no key or no request");
        return self.service().subscribe(key, *request);
    });
}

extern "C" bool QSSubscriptionReply(QSHandle* handle, const char* key, const char* payload, QSError* error)
{
    return perform(__func__, handle, error, [&](QSHandle& self) -> Failure {
        if (key == nullptr) return BAD_ARGUMENT("no key");
        if (Failure failure = checkPayload(payload)) return failure;
        self.connection().run(
            [&self, key = std::string(key), payload = std::string(payload)] { self.service().push(key, payload); });
        return {};
    });
}
