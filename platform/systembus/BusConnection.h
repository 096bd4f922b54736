// SPDX-License-Identifier: Apache-2.0
//
// One connection to the system bus, driven by a GLib main loop through one source. Once attached, the bus object is
// used on the loop's thread only; other threads post tasks. A lost connection is made again. The listener adds its
// matches and objects each time it is notified of a bus.
#ifndef SYSTEMBUS_BUSCONNECTION_H
#define SYSTEMBUS_BUSCONNECTION_H

#include <glib.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <list>
#include <memory>
#include <mutex>

#include "handles/Glib.h"
#include "handles/SdBus.h"

namespace systembus {

/// Called on the loop's thread.
class BusListener {
public:
    /// There is a new bus object. Slots and messages of an earlier one are invalid.
    virtual void onBusConnected(sd_bus* bus) = 0;
    /// The bus is gone. The listener must release all slots and messages of it now.
    virtual void onBusLost() = 0;

protected:
    ~BusListener() = default;
};

class BusConnection {
public:
    using Task = std::function<void()>;

    explicit BusConnection(BusListener& listener) : mListener(listener) {}
    ~BusConnection();
    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    /// Connects, before attach(). 0, or a negative errno value.
    int open();
    /// The bus object, null while there is none. On the loop's thread; before attach(), on the one that opened.
    sd_bus* bus() const { return mBus.get(); }

    /// From now on `context` drives the connection; opening the bus is retried until it succeeds. `owner`, which must
    /// own this object, is kept until close().
    void attach(GMainContext* context, std::shared_ptr<void> owner);
    bool isAttached() const { return mContext != nullptr; }

    /// Runs a task later on the loop's thread, in the order of the calls. From any thread. close() drops pending tasks.
    /// A task that throws std::bad_alloc is run again later, so it must have changed nothing then.
    void post(Task task);
    /// Runs a task at once when called on the loop's thread, else posts it.
    void run(const Task& task);

    /// Runs a task on the loop's thread after a pause, in microseconds, unless the bus is lost before. Called on the
    /// loop's thread. A later call replaces an earlier one.
    void runAfter(std::int64_t pause, Task task);

    /// Disconnects. From any thread; on another one than the loop's it waits until nothing of this object runs. The
    /// caller must own the object.
    void close();
    /// Like close(). Where close() would have to wait, it changes nothing and returns false.
    bool tryClose();

private:
    struct Source;
    class CallScope;
    static GSourceFuncs sFunctions;

    bool prepare(int& timeout);
    bool check();
    void dispatch();
    void work();
    void guard(void (BusConnection::*step)());
    void pauseAfterShortage();

    std::int64_t nextDispatch() const;
    bool hasTasks();
    void notifyAndRunTasks();
    void notifyConnected();
    void runTasks();
    void runDelayed();
    void processBus();
    void reconnect();
    void pauseBeforeRetry();
    void handleDisconnect();
    void watchDescriptor();
    void tearDown();

    BusListener& mListener;
    SdBusPtr mBus;
    bool mIsListenerNotified = false;  // of mBus
    std::int64_t mRetryAt = 0;
    std::int64_t mRetryDelay = 0;
    std::int64_t mConnectedAt = 0;
    bool mIsShort = false;  // memory ran out: everything is made anew at mRetryAt

    std::int64_t mDelayedUntil = std::numeric_limits<std::int64_t>::max();
    Task mDelayed;

    GMainContextPtr mContext;
    GSourcePtr mSource;
    gpointer mTag = nullptr;  // the bus's descriptor in the source
    int mWatchedFd = -1;
    int mWatchedEvents = 0;

    // Held while anything runs on the loop's thread, so that close() can wait for it. Recursive, because a task may
    // call close().
    std::recursive_mutex mRunning;
    int mDepth = 0;
    bool mClosed = false;

    std::mutex mTasksLock;
    std::list<Task> mTasks;
};

}  // namespace systembus

#endif
