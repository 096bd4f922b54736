// SPDX-License-Identifier: Apache-2.0
//
// The service bus for a command: one connection and the loop that drives it, on the thread that runs it. Throws
// CommandError when there is no bus.
#ifndef VPNOALCTL_BUSCLIENT_H
#define VPNOALCTL_BUSCLIENT_H

#include <functional>
#include <list>
#include <string>
#include <utility>

#include "handles/Glib.h"
#include "quorservice.h"

namespace vpnoalctl {

class Signals;

class BusClient {
public:
    using ReplyHandler = std::function<void(const std::string& payload)>;
    using StatusHandler = std::function<void(bool connected)>;

    BusClient();
    ~BusClient();
    BusClient(const BusClient&) = delete;
    BusClient& operator=(const BusClient&) = delete;

    /// Handlers are called from run(), and may call stop().
    void call(const std::string& uri, const std::string& payload, ReplyHandler onReply);
    void watch(const std::string& service, StatusHandler onStatus);
    /// Makes run() execute a task. From any thread, while the client exists.
    void post(std::function<void()> task);

    /// Called from run() when a program that this process started may have ended.
    void onChildEnd(std::function<void()> handler) { mOnChildEnd = std::move(handler); }

    /// Runs until stop(), or until the user interrupts.
    void run(Signals& signals);
    void stop();

private:
    GMainContextPtr mContext;
    GMainLoopPtr mLoop;
    QSHandle* mHandle = nullptr;
    std::function<void()> mOnChildEnd;
    std::list<ReplyHandler> mReplyHandlers;  // elements do not move
    std::list<StatusHandler> mStatusHandlers;
};

}  // namespace vpnoalctl

#endif
