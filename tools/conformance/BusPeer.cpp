// SPDX-License-Identifier: Apache-2.0
#include "BusPeer.h"

#include <unistd.h>

#include "handles/Json.h"

namespace conformance {

namespace {

// Method callbacks get no user data: one service a process.
Platform* sPlatform = nullptr;

bool reply(QSHandle* handle, QSMessage* request, const std::string& payload)
{
    Platform& platform = *sPlatform;
    return QUOR(QSMessageReply)(handle, request, payload.c_str(), nullptr);
}

bool echo(QSHandle* handle, QSMessage* request, void*)
{
    Platform& platform = *sPlatform;
    return reply(handle, request, QUOR(QSMessageGetPayload)(request));
}

bool silent(QSHandle*, QSMessage*, void*)
{
    return true;
}

bool refuse(QSHandle*, QSMessage*, void*)
{
    return false;
}

bool watch(QSHandle* handle, QSMessage* request, void*)
{
    Platform& platform = *sPlatform;
    const bool entered = QUOR(QSSubscriptionAdd)(handle, "conformance", request, nullptr);
    return reply(handle, request, entered ? R"({"entered":true})" : R"({"entered":false})");
}

bool twice(QSHandle* handle, QSMessage* request, void*)
{
    reply(handle, request, R"({"first":true})");
    reply(handle, request, R"({"second":true})");
    return true;
}

bool who(QSHandle* handle, QSMessage* request, void*)
{
    Platform& platform = *sPlatform;
    unsigned int uid = ~0U;
    const bool known = QUOR(QSMessageGetSenderUid)(request, &uid);
    return reply(handle, request, known && uid == geteuid() ? R"({"known":true})" : R"({"known":false})");
}

bool where(QSHandle* handle, QSMessage* request, void*)
{
    return reply(handle, request, R"({"where":"below"})");
}

}  // namespace

void ErrorRecord::expectFilled(const std::string& after) const
{
    expect(mError.error_code < 0, after + ": the error code is " + std::to_string(mError.error_code));
    expect(mError.message != nullptr && *mError.message != '\0', after + ": the error record has no message");
    expect(mError.file != nullptr && mError.func != nullptr, after + ": the error record does not say where");
    expect(mError.line > 0, after + ": the error record's line is " + std::to_string(mError.line));
}

BusPeer::BusPeer(Platform& users, Attached attached, bool asService) : platform(users)
{
    sPlatform = &platform;
    const char* name = asService ? platform.settings().serviceName.c_str() : nullptr;
    ErrorRecord error(platform);
    if (!QUOR(QSRegister)(name, &mHandle, error.get())) {
        error.expectFilled("QSRegister()");
        if (asService) throw Untestable{"no service can be offered: " + error.text()};
        if (error.code() == QS_ERROR_NOT_AVAILABLE) throw Untestable{"there is no bus: " + error.text()};
        throw Broken{"an anonymous QSRegister() failed: " + error.text()};
    }
    expect(mHandle != nullptr, "QSRegister() succeeded without a handle");
    if (attached == Attached::Yes) attach();
}

BusPeer::~BusPeer()
{
    if (mHandle != nullptr) QUOR(QSUnregister)(mHandle, nullptr);
}

void BusPeer::attach()
{
    ErrorRecord error(platform);
    expect(QUOR(QSGmainAttach)(mHandle, mThread.loop(), error.get()), "QSGmainAttach() failed: " + error.text());
}

void BusPeer::leave()
{
    ErrorRecord error(platform);
    QSHandle* handle = mHandle;
    mHandle = nullptr;
    expect(QUOR(QSUnregister)(handle, error.get()), "QSUnregister() failed: " + error.text());
}

QSMessageToken BusPeer::call(const std::string& uri, const std::string& payload)
{
    ErrorRecord error(platform);
    QSMessageToken token = 0;
    const bool accepted = QUOR(QSCall)(mHandle, uri.c_str(), payload.c_str(), onReply, this, &token, error.get());
    expect(accepted, "QSCall(" + uri + ") was refused: " + error.text());
    return token;
}

bool BusPeer::onReply(QSHandle*, QSMessage* message, void* peer)
{
    auto& self = *static_cast<BusPeer*>(peer);
    Platform& platform = self.platform;
    const char* payload = QUOR(QSMessageGetPayload)(message);
    self.mMailbox.put({payload != nullptr ? payload : "(no payload)", QUOR(QSMessageGetResponseToken)(message)});
    return true;
}

bool BusPeer::onStatus(QSHandle*, const char* service, bool connected, void* peer)
{
    static_cast<BusPeer*>(peer)->mMailbox.put({std::string(service) + (connected ? " is there" : " is gone")});
    return true;
}

BusService::BusService(Platform& users) : BusPeer(users, Attached::No, true)
{
    static QSMethod root[] = {{"echo", echo},   {"silent", silent}, {"refuse", refuse}, {"watch", watch},
                              {"twice", twice}, {"who", who},       {nullptr, nullptr}};
    static QSMethod below[] = {{"where", where}, {nullptr, nullptr}};
    ErrorRecord error(platform);
    expect(QUOR(QSRegisterCategory)(handle(), "/", root, nullptr, nullptr, error.get()) &&
               QUOR(QSRegisterCategory)(handle(), "/one/two", below, nullptr, nullptr, error.get()),
           "QSRegisterCategory() failed: " + error.text());
    attach();
}

std::string BusService::uri(const std::string& method) const
{
    return "vesk://" + platform.settings().serviceName + "/" + method;
}

void BusService::push(const std::string& payload)
{
    ErrorRecord error(platform);
    expect(QUOR(QSSubscriptionReply)(handle(), "conformance", payload.c_str(), error.get()),
           "QSSubscriptionReply() failed: " + error.text());
}

void expectErrorReply(const std::string& payload)
{
    const JsonPtr reply(json_tokener_parse(payload.c_str()));
    json_object* value = nullptr;
    const bool good = json_object_object_get_ex(reply.get(), "returnValue", &value) != 0 &&
                      json_object_is_type(value, json_type_boolean) != 0 && json_object_get_boolean(value) == 0 &&
                      json_object_object_get_ex(reply.get(), "errorCode", &value) != 0 &&
                      json_object_get_int(value) == -1 &&
                      json_object_object_get_ex(reply.get(), "errorText", &value) != 0;
    expect(good, "the reply is " + payload + R"( instead of {"returnValue":false,"errorCode":-1,"errorText":...})");
}

}  // namespace conformance
