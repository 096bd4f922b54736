// SPDX-License-Identifier: Apache-2.0
//
// The connection manager's service. It reads the network's state after changes, and answers getStatus with it. A state
// that differs from the last one is pushed to subscribers. Everything runs on one loop.
#ifndef CONNECTIONMANAGER_CONNECTIONMANAGER_H
#define CONNECTIONMANAGER_CONNECTIONMANAGER_H

#include <glib.h>

#include <memory>
#include <string>

#include "Debounce.h"
#include "NetlinkEvents.h"
#include "NetworkManagerWatch.h"
#include "Status.h"
#include "handles/Glib.h"
#include "quorservice.h"

namespace connectionmanager {

class ConnectionManager {
public:
    ConnectionManager();
    ~ConnectionManager();
    ConnectionManager(const ConnectionManager&) = delete;
    ConnectionManager& operator=(const ConnectionManager&) = delete;

    /// Reads the first state, and offers the service on the bus. False, with a log line, after a failure.
    bool start(GMainLoop* loop);

private:
    enum class Hold { Never, Allowed };

    static bool getStatus(QSHandle* handle, QSMessage* message, void* data);
    bool startBus(GMainLoop* loop);
    void refreshIfPending();
    void noteChange();
    void schedule();
    void setTimer(GMainContext* context);
    void refreshOnTime();
    void refresh(Hold hold);
    Outcome take(const Status& status, Hold hold);

    NetlinkEvents mEvents;
    std::shared_ptr<NetworkManagerWatch> mNetworkManager;
    Debounce mDebounce;
    GSourcePtr mTimer;
    QSHandle* mBus = nullptr;
    Status mStatus;
    std::string mPayload;
};

}  // namespace connectionmanager

#endif
