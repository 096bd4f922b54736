// SPDX-License-Identifier: Apache-2.0
#include "ConnectionManager.h"

#include <cerrno>
#include <cstring>
#include <optional>

#include "ServiceLog.h"
#include "SnapshotReader.h"
#include "json/JsonError.h"
#include "json/StrictJson.h"

namespace conman {

namespace {

constexpr char serviceName[] = "com.vesk.connectionmanager";
constexpr char statusKey[] = "status";

// Methods of the bus take no data of their own.
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
    // Listening first, so that no change after the first look is missed.
    if (!mEvents.start(context)) {
        SERVICE_ERROR("cannot listen to the kernel's network events: %s", std::strerror(errno));
        return false;
    }
    mNetworkManager->start(context);
    look();
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
        sInstance->lookIfUnsettled();
        done = !request.subscribes || QSSubscriptionAdd(handle, statusKey, message, &error);
        done = done && QSMessageReply(handle, message, sInstance->mPayload.c_str(), &error);
    } catch (const wfoal::JsonError& refusal) {
        done = QSMessageReply(handle, message, refusalToJson(refusal.what()).c_str(), &error);
    }
    if (!done) SERVICE_ERROR("getStatus: %s", error.message);
    QSErrorFree(&error);
    return done;
}

// Whoever asks gets what is, even while changes are still being waited for.
void ConnectionManager::lookIfUnsettled()
{
    mEvents.receive();
    if (mDebounce.due()) look();
}

void ConnectionManager::noteChange()
{
    mDebounce.note(g_get_monotonic_time());
    g_source_set_ready_time(mTimer.get(), *mDebounce.due());
}

// A source that is ready at a given time and never otherwise.
void ConnectionManager::setTimer(GMainContext* context)
{
    static GSourceFuncs functions = {
        nullptr, nullptr, [](GSource*, GSourceFunc callback, gpointer data) -> gboolean {
                                         return callback(data); },
        nullptr, nullptr, nullptr};
    mTimer.reset(g_source_new(&functions, sizeof(GSource)));
    const GSourceFunc onSettled = [](gpointer self) -> gboolean {
        static_cast<ConnectionManager*>(self)->look();
        return G_SOURCE_CONTINUE;
    };
    g_source_set_callback(mTimer.get(), onSettled, this, nullptr);
    g_source_attach(mTimer.get(), context);
}

void ConnectionManager::look()
{
    g_source_set_ready_time(mTimer.get(), -1);
    mDebounce.done();
    const std::optional<Snapshot> snapshot = readSnapshot();
    if (!snapshot) {
        SERVICE_ERROR("cannot read the kernel's network tables: %s", std::strerror(errno));
        noteChange();  // again, a little later
        return;
    }
    const Status status = judge(*snapshot, mNetworkManager->connectivity());
    if (status == mStatus && !mPayload.empty()) return;
    mStatus = status;
    mPayload = toJson(status);
    SERVICE_INFO("%s", mPayload.c_str());
    if (mBus != nullptr) QSSubscriptionReply(mBus, statusKey, mPayload.c_str(), nullptr);
}

}  // namespace conman
