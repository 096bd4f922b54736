// SPDX-License-Identifier: Apache-2.0
//
// One registration with the bus: its connection and what hangs on it. Handles are looked up before they are used, so
// that one that was given back is an error and not a crash.
#ifndef QUOR_HANDLE_H
#define QUOR_HANDLE_H

#include <atomic>
#include <memory>
#include <string>

#include "BusConnection.h"
#include "CallTable.h"
#include "ErrorRecord.h"
#include "NameClaim.h"
#include "ServiceSide.h"
#include "StatusWatches.h"
#include "handles/Glib.h"
#include "quorservice.h"

struct QSHandle final : public std::enable_shared_from_this<QSHandle>, private hostbus::BusListener {
public:
    /// Connects and enters the new handle in the list.
    static quor::Failure open(const char* name, QSHandle*& handle);
    /// Null when it is no handle, or not any more.
    static std::shared_ptr<QSHandle> find(QSHandle* handle);
    /// Takes the handle from the list and disconnects.
    static bool close(QSHandle* handle);
    /// When the library goes: whatever is still connected and not at work.
    static void closeAll();

    quor::Failure attach(GMainLoop* loop);

    hostbus::BusConnection& connection() { return mConnection; }
    quor::CallTable& calls() { return mCalls; }
    quor::StatusWatches& watches() { return mWatches; }
    quor::ServiceSide& service() { return mService; }
    QSMessageToken newToken() { return ++mLastToken; }

private:
    explicit QSHandle(const char* name);
    quor::Failure connect();
    void onBusConnected(sd_bus* bus) override;
    void onBusLost() override;

    const std::string mName;  // empty for an anonymous client
    std::atomic<QSMessageToken> mLastToken{0};
    GMainLoopPtr mLoop;
    hostbus::BusConnection mConnection;
    quor::NameClaim mClaim;
    quor::CallTable mCalls;
    quor::StatusWatches mWatches;
    quor::ServiceSide mService;
    SdBusSlotPtr mFilter;
};

#endif
