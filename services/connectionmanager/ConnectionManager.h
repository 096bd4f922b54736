// SPDX-License-Identifier: Apache-2.0
//
// The service: looks at the network when it has settled, or when it is asked before that, answers getStatus with what
// it saw, and pushes it to subscribers when it is another than before. Everything runs on one loop.
#ifndef CONMAN_CONNECTIONMANAGER_H
#define CONMAN_CONNECTIONMANAGER_H

#include <glib.h>

#include <memory>
#include <string>

#include "Debounce.h"
#include "NetlinkEvents.h"
#include "NetworkManagerWatch.h"
#include "Status.h"
#include "handles/Glib.h"
#include "quorservice.h"

namespace conman {

class ConnectionManager {
public:
    ConnectionManager();
    ~ConnectionManager();
    ConnectionManager(const ConnectionManager&) = delete;
    ConnectionManager& operator=(const ConnectionManager&) = delete;

    /// Comes up on the bus, with a first look taken. False, with a log line, when it cannot.
    bool start(GMainLoop* loop);

private:
    static bool getStatus(QSHandle* handle, QSMessage* message, void* data);
    bool startBus(GMainLoop* loop);
    void lookIfUnsettled();
    void noteChange();
    void setTimer(GMainContext* context);
    void look();

    NetlinkEvents mEvents;
    std::shared_ptr<NetworkManagerWatch> mNetworkManager;
    Debounce mDebounce;
    GSourcePtr mTimer;
    QSHandle* mBus = nullptr;
    Status mStatus;
    std::string mPayload;
};

}  // namespace conman

#endif
