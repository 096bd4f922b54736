// SPDX-License-Identifier: Apache-2.0
//
// One connection to the system bus, driven by a GLib main loop through one source. Once attached, the bus object is
// used on the loop's thread only; other threads post to it. When the bus goes away the connection is made again, so
// its user installs what it needs whenever it is told that there is a bus.
#ifndef HOSTBUS_BUSCONNECTION_H
#define HOSTBUS_BUSCONNECTION_H

#include <glib.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <vector>

#include "handles/Glib.h"
#include "handles/SdBus.h"

namespace hostbus {

/// Called on the loop's thread.
class BusListener {
public:
    /// A new bus object; nothing of an earlier one is valid any more.
    virtual void onBusConnected(sd_bus* bus) = 0;
    /// The bus is gone. Everything that belongs to it must be given up now.
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

    /// Has a context drive the connection from now on; a bus that is not open yet is looked for until it is there.
    /// `owner`, which must own this object, is kept until close().
    void attach(GMainContext* context, std::shared_ptr<void> owner);
    bool isAttached() const { return mContext != nullptr; }

    /// Runs a task later on the loop's thread. From any thread; in the order of the calls. Dropped by close().
    void post(Task task);
    /// Runs a task at once when called on the loop's thread, else posts it.
    void run(const Task& task);

    /// Runs a task on the loop's thread after a pause, in microseconds, unless the bus is lost before. On the loop's
    /// thread; a later call takes the place of an earlier one.
    void runAfter(std::int64_t pause, Task task);

    /// Disconnects. From any thread; on another one than the loop's it waits until nothing of this object runs any
    /// more. Whoever calls must own the object.
    void close();
    /// Like close(), but leaves everything as it is and returns false when it would have to wait.
    bool tryClose();

private:
    struct Source;
    class Entry;
    static GSourceFuncs sFunctions;

    bool prepare(int& timeout);
    bool check();
    void dispatch();

    std::int64_t nextTurn() const;
    bool hasTasks();
    void announce();
    void runTasks();
    void runDelayed();
    void processBus();
    void connectAgain();
    void pauseBeforeRetry();
    void lose();
    void watchDescriptor();
    void release();

    BusListener& mListener;
    SdBusPtr mBus;
    bool mAnnounced = false;  // the listener knows mBus
    std::int64_t mRetryAt = 0;
    std::int64_t mRetryDelay = 0;
    std::int64_t mConnectedAt = 0;

    std::int64_t mDelayedUntil = std::numeric_limits<std::int64_t>::max();
    Task mDelayed;

    GMainContextPtr mContext;
    GSourcePtr mSource;
    gpointer mTag = nullptr;  // the bus's descriptor in the source
    int mWatchedFd = -1;
    int mWatchedEvents = 0;

    // Held while anything runs on the loop's thread, so that close() can wait for it; recursive, because what runs
    // there may close.
    std::recursive_mutex mRunning;
    int mDepth = 0;
    bool mClosed = false;

    std::mutex mTasksLock;
    std::vector<Task> mTasks;
};

}  // namespace hostbus

#endif
