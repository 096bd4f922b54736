// SPDX-License-Identifier: Apache-2.0
#include "ConnectionManager.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <optional>

#include "ServiceLog.h"
#include "SnapshotReader.h"
#include "json/JsonError.h"
#include "json/StrictJson.h"

namespace connectionmanager {

namespace {

constexpr char serviceName[] = "com.vesk.connectionmanager";
constexpr char statusKey[] = "status";

// A method table of the bus has no user data.
ConnectionManager* sInstance = nullptr;

struct StatusRequest {
    bool subscribes = false;
};

const wfoal::JsonField<StatusRequest> sRequestFields[] = {
    {"subscribe", false,
     [](const wfoal::JsonValue& value, StatusRequest& request) { request.subscribes = value.boolean(); }},
};

// Throws a JsonError.
StatusRequest parseRequest(const char* payload)
{
    StatusRequest request;
    const wfoal::JsonDocument document(payload);
    document.root().readObject(sRequestFields, request);
    return request;
}

}  // namespace

ConnectionManager::ConnectionManager()
    : mEvents([this] { noteChange(); }),
      mNetworkManager(std::make_shared<NetworkManagerWatch>([this] { noteChange(); }))
{
    sInstance = this;
}

ConnectionManager::~ConnectionManager()
{
    if (mTimer != nullptr) g_source_destroy(mTimer.get());
    mNetworkManager->stop();
    if (mBus != nullptr) QSUnregister(mBus, nullptr);
    sInstance = nullptr;
}

bool ConnectionManager::start(GMainLoop* loop)
{
    GMainContext* context = g_main_loop_get_context(loop);
    setTimer(context);
    // Listens first, so that no change after the first refresh is missed.
    if (!mEvents.start(context)) {
        SERVICE_ERROR("cannot listen to the kernel's network events: %s", std::strerror(errno));
        return false;
    }
    mNetworkManager->start(context);
    refresh(Hold::Never);
    return startBus(loop);
}

bool ConnectionManager::startBus(GMainLoop* loop)
{
    static QSMethod methods[] = {{"getStatus", getStatus}, {nullptr, nullptr}};
    QSError error;
    QSErrorInit(&error);
    const bool started = QSRegister(serviceName, &mBus, &error) &&
                         QSRegisterCategory(mBus, "/", methods, nullptr, nullptr, &error) &&
                         QSGmainAttach(mBus, loop, &error);
    if (!started) SERVICE_ERROR("cannot come up on the service bus: %s", error.message);
    QSErrorFree(&error);
    return started;
}

bool ConnectionManager::getStatus(QSHandle* handle, QSMessage* message, void*)
{
    QSError error;
    QSErrorInit(&error);
    bool done = false;
    try {
        const StatusRequest request = parseRequest(QSMessageGetPayload(message));
        sInstance->refreshIfPending();
        done = !request.subscribes || QSSubscriptionAdd(handle, statusKey, message, &error);
        done = done && QSMessageReply(handle, message, sInstance->mPayload.c_str(), &error);
    } catch (const wfoal::JsonError& refusal) {
        done = QSMessageReply(handle, message, refusalToJson(refusal.what()).c_str(), &error);
    }
    if (!done) SERVICE_ERROR("getStatus: %s", error.message);
    QSErrorFree(&error);
    return done;
}

// Answer a query with the current state even while the debounce timer is running.
void ConnectionManager::refreshIfPending()
{
    mEvents.receive();
    if (mDebounce.due()) refresh(Hold::Never);
}

void ConnectionManager::noteChange()
{
    mDebounce.note(g_get_monotonic_time());
    schedule();
}

void ConnectionManager::schedule()
{
    g_source_set_ready_time(mTimer.get(), mDebounce.due().value_or(-1));
}

// A source that is ready at a set time only.
void ConnectionManager::setTimer(GMainContext* context)
{
    static GSourceFuncs functions = {
        nullptr, nullptr, [](GSource*, GSourceFunc callback, gpointer data) -> gboolean {
                                         return callback(data); },
        nullptr, nullptr, nullptr};
    mTimer.reset(g_source_new(&functions, sizeof(GSource)));
    const GSourceFunc onTimer = [](gpointer self) -> gboolean {
        static_cast<ConnectionManager*>(self)->refreshOnTime();
        return G_SOURCE_CONTINUE;
    };
    g_source_set_callback(mTimer.get(), onTimer, this, nullptr);
    g_source_attach(mTimer.get(), context);
}

// No exception may reach GLib.
void ConnectionManager::refreshOnTime()
{
    try {
        refresh(Hold::Allowed);
    } catch (const std::bad_alloc&) {
        SERVICE_ERROR("cannot read the kernel's network tables: %s", std::strerror(ENOMEM));
        mDebounce.done(Outcome::Same);
        noteChange();
    }
}

void ConnectionManager::refresh(Hold hold)
{
    const std::optional<Snapshot> snapshot = readSnapshot();
    if (!snapshot) {
        SERVICE_ERROR("cannot read the kernel's network tables: %s", std::strerror(errno));
        mDebounce.done(Outcome::Same);
        noteChange();  // retry a little later
        return;
    }
    mDebounce.done(take(judge(*snapshot, mNetworkManager->connectivity()), hold));
    schedule();
}

Outcome ConnectionManager::take(const Status& status, Hold hold)
{
    if (status == mStatus && !mPayload.empty()) return Outcome::Same;
    const bool mayWait = hold == Hold::Allowed && mDebounce.mayHold(g_get_monotonic_time());
    if (mayWait && isArriving(mStatus, status)) return Outcome::Held;
    mStatus = status;
    mPayload = toJson(status);
    SERVICE_INFO("%s", mPayload.c_str());
    if (mBus != nullptr) QSSubscriptionReply(mBus, statusKey, mPayload.c_str(), nullptr);
    return Outcome::Pushed;
}

}  // namespace connectionmanager
