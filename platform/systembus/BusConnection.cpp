// SPDX-License-Identifier: Apache-2.0
#include "BusConnection.h"

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

#include "OutOfMemory.h"
#include "TsanAnnotations.h"

namespace systembus {

namespace {

constexpr std::int64_t never = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t millisecond = 1000;
constexpr std::int64_t firstRetryDelay = 100 * millisecond;
constexpr std::int64_t longestRetryDelay = 2000 * millisecond;
// After so many messages other sources of the loop are dispatched.
constexpr int messagesPerDispatch = 64;

int untilMilliseconds(std::int64_t time)
{
    if (time == never) return -1;
    const std::int64_t left = time - g_get_monotonic_time();
    if (left <= 0) return 0;
    return static_cast<int>(std::min<std::int64_t>((left + millisecond - 1) / millisecond, std::int64_t{3600} * 1000));
}

}  // namespace

// GLib allocates it and runs no constructors, so attach() constructs `owner`.
struct BusConnection::Source {
    GSource base;
    BusConnection* connection;
    std::shared_ptr<void> owner;

    static Source* of(GSource* source) { return reinterpret_cast<Source*>(source); }
    static BusConnection& connectionOf(GSource* source)
    {
        tsanAcquire(source);
        return *of(source)->connection;
    }
};

GSourceFuncs BusConnection::sFunctions = {
    [](GSource* source, gint* timeout) -> gboolean { return Source::connectionOf(source).prepare(*timeout); },
    [](GSource* source) -> gboolean { return Source::connectionOf(source).check(); },
    [](GSource* source, GSourceFunc, gpointer) -> gboolean {
        Source::connectionOf(source).dispatch();
        return G_SOURCE_CONTINUE;
    },
    [](GSource* source) { Source::of(source)->owner.~shared_ptr(); },
    nullptr,
    nullptr,
};

// While one exists, the connection is not torn down. The outermost one tears it down if close() was called meanwhile.
class BusConnection::CallScope {
public:
    explicit CallScope(BusConnection& connection) : mConnection(connection), mLock(connection.mRunning)
    {
        ++mConnection.mDepth;
    }
    ~CallScope()
    {
        if (--mConnection.mDepth == 0 && mConnection.mClosed) mConnection.tearDown();
    }
    bool isOutermost() const { return mConnection.mDepth == 1; }

private:
    BusConnection& mConnection;
    const std::lock_guard<std::recursive_mutex> mLock;
};

BusConnection::~BusConnection()
{
    close();
}

int BusConnection::open()
{
    return std::min(obtain(mBus, sd_bus_open_system), 0);
}

void BusConnection::attach(GMainContext* context, std::shared_ptr<void> owner)
{
    const CallScope scope(*this);
    auto* source = Source::of(g_source_new(&sFunctions, sizeof(Source)));
    mSource.reset(&source->base);
    source->connection = this;
    new (&source->owner) std::shared_ptr<void>(std::move(owner));
    {
        const std::lock_guard<std::mutex> lock(mTasksLock);
        mContext.reset(g_main_context_ref(context));
    }
    tsanRelease(mSource.get());
    g_source_attach(mSource.get(), context);
}

void BusConnection::post(Task task)
{
    const std::lock_guard<std::mutex> lock(mTasksLock);
    mTasks.push_back(std::move(task));
    if (mContext != nullptr) g_main_context_wakeup(mContext.get());
}

void BusConnection::run(const Task& task)
{
    if (mContext == nullptr || !g_main_context_is_owner(mContext.get())) return post(task);
    const CallScope scope(*this);
    if (scope.isOutermost() && !mIsShort) guard(&BusConnection::notifyAndRunTasks);
    if (!mClosed) task();
}

void BusConnection::runAfter(std::int64_t pause, Task task)
{
    mDelayedUntil = g_get_monotonic_time() + pause;
    mDelayed = std::move(task);
}

void BusConnection::close()
{
    const CallScope scope(*this);
    mClosed = true;
}

bool BusConnection::tryClose()
{
    const std::unique_lock<std::recursive_mutex> lock(mRunning, std::try_to_lock);
    if (lock.owns_lock()) close();
    return lock.owns_lock();
}

void BusConnection::tearDown()
{
    std::list<Task> dropped;
    {
        const std::lock_guard<std::mutex> lock(mTasksLock);
        dropped.swap(mTasks);
    }
    if (mSource != nullptr) g_source_destroy(mSource.get());
    mBus.reset();
    mSource.reset();
}

bool BusConnection::prepare(int& timeout)
{
    const CallScope scope(*this);
    timeout = -1;
    if (mClosed) return false;
    if (mBus != nullptr && !mIsShort) watchDescriptor();
    if (!mIsShort && (hasTasks() || (mBus != nullptr && !mIsListenerNotified))) return true;
    timeout = untilMilliseconds(nextDispatch());
    return timeout == 0;
}

bool BusConnection::check()
{
    const CallScope scope(*this);
    if (mClosed) return false;
    if (mTag != nullptr && g_source_query_unix_fd(mSource.get(), mTag) != 0) return true;
    return (!mIsShort && hasTasks()) || untilMilliseconds(nextDispatch()) == 0;
}

void BusConnection::dispatch()
{
    const CallScope scope(*this);
    if (!mClosed && (!mIsShort || g_get_monotonic_time() >= mRetryAt)) guard(&BusConnection::work);
}

void BusConnection::work()
{
    if (mIsShort) {
        handleDisconnect();
        mIsShort = false;
        return;
    }
    if (mBus == nullptr) reconnect();
    notifyAndRunTasks();
    runDelayed();
    processBus();
}

// An exception must not reach GLib. What was cut short is made anew after a pause: matches, objects and the name; each
// pending call is answered.
void BusConnection::guard(void (BusConnection::*step)())
{
    try {
        (this->*step)();
    } catch (const std::bad_alloc&) {
        pauseAfterShortage();
    }
}

void BusConnection::pauseAfterShortage()
{
    if (mTag != nullptr) g_source_remove_unix_fd(mSource.get(), mTag);
    mTag = nullptr;
    mWatchedFd = -1;
    mIsShort = true;
    pauseBeforeRetry();
}

// When dispatch() is due even if nothing arrives.
std::int64_t BusConnection::nextDispatch() const
{
    if (mBus == nullptr || mIsShort) return mRetryAt;
    std::uint64_t time = 0;
    if (sd_bus_get_timeout(mBus.get(), &time) < 0) return 0;
    return std::min(mDelayedUntil, time > static_cast<std::uint64_t>(never) ? never : static_cast<std::int64_t>(time));
}

bool BusConnection::hasTasks()
{
    const std::lock_guard<std::mutex> lock(mTasksLock);
    return !mTasks.empty();
}

void BusConnection::notifyAndRunTasks()
{
    notifyConnected();
    runTasks();
}

void BusConnection::notifyConnected()
{
    if (mBus == nullptr || mIsListenerNotified) return;
    mIsListenerNotified = true;
    mListener.onBusConnected(mBus.get());
}

void BusConnection::runTasks()
{
    std::list<Task> tasks;
    {
        const std::lock_guard<std::mutex> lock(mTasksLock);
        tasks.swap(mTasks);
    }
    try {
        for (; !tasks.empty() && !mClosed; tasks.pop_front())
            tasks.front()();
    } catch (const std::bad_alloc&) {
        const std::lock_guard<std::mutex> lock(mTasksLock);
        mTasks.splice(mTasks.begin(), tasks);
        throw;
    }
}

void BusConnection::runDelayed()
{
    if (mClosed || g_get_monotonic_time() < mDelayedUntil) return;
    mDelayedUntil = never;
    std::exchange(mDelayed, nullptr)();
}

void BusConnection::processBus()
{
    for (int count = 0; count < messagesPerDispatch && mBus != nullptr && !mClosed; ++count) {
        const unsigned shortages = sShortages;
        const int result = sd_bus_process(mBus.get(), nullptr);
        if (sShortages != shortages) throw std::bad_alloc();
        if (result == 0) return;
        if (result < 0) handleDisconnect();
    }
}

void BusConnection::reconnect()
{
    if (g_get_monotonic_time() < mRetryAt) return;
    if (open() == 0) {
        mConnectedAt = g_get_monotonic_time();
    } else {
        pauseBeforeRetry();
    }
}

void BusConnection::pauseBeforeRetry()
{
    mRetryDelay = std::clamp(2 * mRetryDelay, firstRetryDelay, longestRetryDelay);
    mRetryAt = g_get_monotonic_time() + mRetryDelay;
}

void BusConnection::handleDisconnect()
{
    if (mTag != nullptr) g_source_remove_unix_fd(mSource.get(), mTag);
    mTag = nullptr;
    mWatchedFd = -1;
    const SdBusPtr lost = std::move(mBus);  // first, so that the listener finds no bus
    mDelayedUntil = never;
    mDelayed = nullptr;
    // The delay keeps growing with a bus that accepts connections but ends them at once.
    if (g_get_monotonic_time() - mConnectedAt >= longestRetryDelay) mRetryDelay = 0;
    pauseBeforeRetry();
    if (mIsListenerNotified) mListener.onBusLost();
    mIsListenerNotified = false;
}

void BusConnection::watchDescriptor()
{
    const int fd = sd_bus_get_fd(mBus.get());
    const int events = std::max(sd_bus_get_events(mBus.get()), 0);
    if (fd < 0) return;
    if (fd != mWatchedFd) {
        if (mTag != nullptr) g_source_remove_unix_fd(mSource.get(), mTag);
        mTag = g_source_add_unix_fd(mSource.get(), fd, static_cast<GIOCondition>(events | G_IO_HUP | G_IO_ERR));
    } else if (events != mWatchedEvents) {
        g_source_modify_unix_fd(mSource.get(), mTag, static_cast<GIOCondition>(events | G_IO_HUP | G_IO_ERR));
    }
    mWatchedFd = fd;
    mWatchedEvents = events;
}

}  // namespace systembus
