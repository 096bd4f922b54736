// SPDX-License-Identifier: Apache-2.0
//
// A main loop on a thread of its own, as a library's user has one, and a place where its callbacks leave what they
// were told.
#ifndef WFOAL_TEST_LOOPTHREAD_H
#define WFOAL_TEST_LOOPTHREAD_H

#include <glib.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "handles/Glib.h"

namespace testsupport {

/// Runs something on the thread that runs a context's loop, and waits for it.
inline void callOnContext(GMainContext* context, const std::function<void()>& task)
{
    // GLib's own locks are invisible to the thread sanitizer; this one tells it who came first.
    static std::mutex sHandover;
    struct Posted {
        const std::function<void()>& task;
        std::promise<void> done;
    } posted{task, {}};
    std::future<void> done = posted.done.get_future();
    const GSourcePtr source(g_idle_source_new());
    g_source_set_priority(source.get(), G_PRIORITY_DEFAULT);
    const GSourceFunc run = [](gpointer data) -> gboolean {
        std::unique_lock<std::mutex>(sHandover).unlock();
        auto& call = *static_cast<Posted*>(data);
        call.task();
        call.done.set_value();
        return G_SOURCE_REMOVE;
    };
    g_source_set_callback(source.get(), run, &posted, nullptr);
    std::unique_lock<std::mutex>(sHandover).unlock();
    g_source_attach(source.get(), context);
    done.wait();
}

class LoopThread {
public:
    LoopThread() : mContext(g_main_context_new()), mLoop(g_main_loop_new(mContext.get(), FALSE))
    {
        mThread = std::thread([this] { g_main_loop_run(mLoop.get()); });
        call([] {});  // a quit before the loop runs would be lost
    }
    ~LoopThread()
    {
        call([this] { g_main_loop_quit(mLoop.get()); });
        mThread.join();
    }

    GMainLoop* loop() const { return mLoop.get(); }
    void call(const std::function<void()>& task) { callOnContext(mContext.get(), task); }

private:
    GMainContextPtr mContext;
    GMainLoopPtr mLoop;
    std::thread mThread;
};

/// What callbacks said, in order, from any thread.
class Mailbox {
public:
    void put(const std::string& message)
    {
        const std::lock_guard<std::mutex> lock(mLock);
        mMessages.push_back(message);
        mChanged.notify_all();
    }
    std::vector<std::string> all() const
    {
        const std::lock_guard<std::mutex> lock(mLock);
        return mMessages;
    }
    void clear()
    {
        const std::lock_guard<std::mutex> lock(mLock);
        mMessages.clear();
    }
    /// Waits until there are so many, for ten seconds at most, and returns what there is.
    std::vector<std::string> wait(std::size_t count) const
    {
        std::unique_lock<std::mutex> lock(mLock);
        mChanged.wait_for(lock, std::chrono::seconds(10), [&] { return mMessages.size() >= count; });
        return mMessages;
    }

private:
    mutable std::mutex mLock;
    mutable std::condition_variable mChanged;
    std::vector<std::string> mMessages;
};

}  // namespace testsupport

#endif
