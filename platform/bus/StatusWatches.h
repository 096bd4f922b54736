// SPDX-License-Identifier: Apache-2.0
//
// Notifies the client when services appear on the bus and leave it. Used on the loop's thread.
#ifndef QUOR_STATUSWATCHES_H
#define QUOR_STATUSWATCHES_H

#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "NameWatch.h"
#include "quorservice.h"

namespace quor {

class StatusWatches {
public:
    explicit StatusWatches(QSHandle* handle) : mHandle(handle) {}
    StatusWatches(const StatusWatches&) = delete;
    StatusWatches& operator=(const StatusWatches&) = delete;

    /// `bus` may be null: then the service counts as absent until onBusConnected().
    void add(sd_bus* bus, const std::string& service, QSServerStatusCallback callback, void* userData);
    void onBusConnected(sd_bus* bus);
    void onBusLost();

private:
    struct Watch {
        std::string service;
        QSServerStatusCallback callback;
        void* userData;
        std::optional<bool> notified;  // the state of the last notification
        std::unique_ptr<systembus::NameWatch> name;
        std::string owner;
    };

    void watchName(Watch& watch, sd_bus* bus);
    void onOwner(Watch& watch, const std::string& owner);
    void notify(Watch& watch, bool connected);

    QSHandle* const mHandle;
    std::deque<Watch> mWatches;  // for the life of the handle; elements do not move
};

}  // namespace quor

#endif
