// SPDX-License-Identifier: Apache-2.0
#include "bus/BusClient.h"

#include <glib-unix.h>

#include <memory>
#include <utility>

#include "CommandError.h"
#include "loop/Post.h"
#include "tunnel/Signals.h"

namespace vpnoalctl {

namespace {

constexpr char remedy[] =
    "is the system bus running, and do DBUS_SYSTEM_BUS_ADDRESS and the arguments name what you mean?";

class BusError : public QSError {
public:
    BusError() { QSErrorInit(this); }
    ~BusError() { QSErrorFree(this); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;

    [[noreturn]] void raise(const std::string& what) const
    {
        if (error_code == QS_ERROR_BAD_ARGUMENT) throw badInput(what, message);
        throw CommandError(what, message, remedy);
    }
};

}  // namespace

BusClient::BusClient() : mContext(g_main_context_new()), mLoop(g_main_loop_new(mContext.get(), FALSE))
{
    BusError error;
    if (!QSRegister(nullptr, &mHandle, &error)) error.raise("service bus");
    if (!QSGmainAttach(mHandle, mLoop.get(), &error)) error.raise("service bus");
}

BusClient::~BusClient()
{
    QSUnregister(mHandle, nullptr);
}

void BusClient::call(const std::string& uri, const std::string& payload, ReplyHandler onReply)
{
    const auto deliver = [](QSHandle*, QSMessage* message, void* handler) {
        (*static_cast<ReplyHandler*>(handler))(QSMessageGetPayload(message));
        return true;
    };
    ReplyHandler& handler = mReplyHandlers.emplace_back(std::move(onReply));
    BusError error;
    if (!QSCall(mHandle, uri.c_str(), payload.c_str(), deliver, &handler, nullptr, &error)) error.raise(uri);
}

void BusClient::watch(const std::string& service, StatusHandler onStatus)
{
    const auto deliver = [](QSHandle*, const char*, bool connected, void* handler) {
        (*static_cast<StatusHandler*>(handler))(connected);
        return true;
    };
    StatusHandler& handler = mStatusHandlers.emplace_back(std::move(onStatus));
    BusError error;
    if (!QSRegisterServerStatus(mHandle, service.c_str(), deliver, &handler, &error)) error.raise(service);
}

void BusClient::post(std::function<void()> task)
{
    wfoal::postToContext(mContext.get(), std::move(task));
}

void BusClient::run(Signals& signals)
{
    struct Interruption {
        Signals& signals;
        GMainLoop* loop;
        const std::function<void()>& onChildEnd;
    } interruption{signals, mLoop.get(), mOnChildEnd};
    const GSourcePtr source(g_unix_fd_source_new(signals.descriptor(), G_IO_IN));
    const GUnixFDSourceFunc onSignal = [](gint, GIOCondition, gpointer data) -> gboolean {
        auto& self = *static_cast<Interruption*>(data);
        if (self.signals.isInterrupted()) g_main_loop_quit(self.loop);
        if (self.onChildEnd) self.onChildEnd();
        return G_SOURCE_CONTINUE;
    };
    g_source_set_callback(source.get(), G_SOURCE_FUNC(onSignal), &interruption, nullptr);
    g_source_attach(source.get(), mContext.get());
    g_main_loop_run(mLoop.get());
    g_source_destroy(source.get());
}

void BusClient::stop()
{
    g_main_loop_quit(mLoop.get());
}

}  // namespace vpnoalctl
