// SPDX-License-Identifier: Apache-2.0
#include "QuorClient.h"

#include "Log.h"

namespace {

QSHandle* spQsPrvH = nullptr;

// Makes one platform call, which takes the error record last.
template <typename Call>
bool reported(Call call)
{
    QSError error;
    QSErrorInit(&error);
    const bool done = call(&error);
    if (!done) {
        quorCmLogError(error);
        QSErrorFree(&error);
    }
    return done;
}

}  // namespace

bool quorRegister(const char* serviceName)
{
    return reported([&](QSError* error) { return QSRegister(serviceName, &spQsPrvH, error); });
}

bool quorAttachToMainLoop(GMainLoop* loop)
{
    return reported([&](QSError* error) { return QSGmainAttach(spQsPrvH, loop, error); });
}

bool quorWatchServiceStatus(const char* serviceName, QSServerStatusCallback callback)
{
    return reported(
        [&](QSError* error) { return QSRegisterServerStatus(spQsPrvH, serviceName, callback, nullptr, error); });
}

bool quorSend(const char* uri, const char* payload, QSReplyCallback callback, void* userData)
{
    WFOAL_DEBUG("Sending QuorMessage URI: %s, Param: %s", uri, payload);
    return reported([&](QSError* error) { return QSCall(spQsPrvH, uri, payload, callback, userData, nullptr, error); });
}

bool quorNotifySubscriber(const char* key, const char* payload)
{
    return reported([&](QSError* error) { return QSSubscriptionReply(spQsPrvH, key, payload, error); });
}

bool quorRegisterCategory(const char* category, QSMethod*, QSMethod* second)
{
    return reported(
        [&](QSError* error) { return QSRegisterCategory(spQsPrvH, category, second, nullptr, nullptr, error); });
}

bool quorUnregister()
{
    if (spQsPrvH == nullptr) return true;
    WFOAL_DEBUG("Starting To Unregister Quor Service");
    const bool done = reported([](QSError* error) {
        const bool unregistered = QSUnregister(spQsPrvH, error);
        WFOAL_DEBUG("Finished Unregistering Quor Service");
        return unregistered;
    });
    spQsPrvH = nullptr;
    return done;
}

void quorCmLogError(const QSError& error)
{
    WFOAL_ERROR("QUORSERVICE ERROR %d: %s (%s @ %s:%d)\n", error.error_code, error.message, error.func, error.file,
                error.line);
}
