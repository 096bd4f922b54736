// SPDX-License-Identifier: Apache-2.0
//
// One registration with the bus: its connection, calls, watches and service. A handle is looked up before it is used,
// so using one that was unregistered is an error and not a crash.
#ifndef QUOR_HANDLE_H
#define QUOR_HANDLE_H

#include <atomic>
#include <memory>
#include <string>

#include "BusConnection.h"
#include "CallTable.h"
#include "ErrorRecord.h"
#include "LocalService.h"
#include "NameClaim.h"
#include "StatusWatches.h"
#include "handles/Glib.h"
#include "quorservice.h"

struct QSHandle final : public std::enable_shared_from_this<QSHandle>, private systembus::BusListener {
public:
    /// Connects, and adds the new handle to the list.
    static quor::Failure open(const char* name, QSHandle*& handle);
    /// Null when there is no such handle.
    static std::shared_ptr<QSHandle> find(QSHandle* handle);
    /// Removes the handle from the list and disconnects.
    static bool close(QSHandle* handle);
    /// For the end of the library: closes all handles, except one whose callback runs on another thread.
    static void closeAll();

    quor::Failure attach(GMainLoop* loop);

    systembus::BusConnection& connection() { return mConnection; }
    quor::CallTable& calls() { return mCalls; }
    quor::StatusWatches& watches() { return mWatches; }
    quor::LocalService& service() { return mService; }
    QSMessageToken newToken() { return ++mLastToken; }

private:
    explicit QSHandle(const char* name);
    quor::Failure connect();
    void onBusConnected(sd_bus* bus) override;
    void onBusLost() override;

    const std::string mName;  // empty for an anonymous client
    std::atomic<QSMessageToken> mLastToken{0};
    GMainLoopPtr mLoop;
    systembus::BusConnection mConnection;
    quor::NameClaim mClaim;
    quor::CallTable mCalls;
    quor::StatusWatches mWatches;
    quor::LocalService mService;
    SdBusSlotPtr mFilter;
};

#endif
