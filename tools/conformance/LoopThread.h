// SPDX-License-Identifier: Apache-2.0
//
// A main loop on a thread of its own, as the plug-in has one, and a mailbox for its callbacks.
#ifndef CONFORMANCE_LOOPTHREAD_H
#define CONFORMANCE_LOOPTHREAD_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "handles/Glib.h"

namespace conformance {

class LoopThread {
public:
    LoopThread() : mContext(g_main_context_new()), mLoop(g_main_loop_new(mContext.get(), FALSE))
    {
        mThread = std::thread([this, loop = mLoop.get()] {
            g_main_context_push_thread_default(mContext.get());
            g_main_loop_run(loop);
            g_main_context_pop_thread_default(mContext.get());
        });
        call([] {});
    }
    ~LoopThread()
    {
        call([this] { g_main_loop_quit(mLoop.get()); });
        mThread.join();
    }

    GMainLoop* loop() const { return mLoop.get(); }
    std::thread::id id() const { return mThread.get_id(); }
    /// Runs a task on the loop's thread and waits for it.
    void call(const std::function<void()>& task)
    {
        std::packaged_task<void()> packaged(task);
        std::future<void> done = packaged.get_future();
        const auto callback = [](gpointer data) -> gboolean {
            (*static_cast<std::packaged_task<void()>*>(data))();
            return G_SOURCE_REMOVE;
        };
        g_main_context_invoke_full(mContext.get(), G_PRIORITY_DEFAULT, callback, &packaged, nullptr);
        done.get();
    }

private:
    GMainContextPtr mContext;
    GMainLoopPtr mLoop;
    std::thread mThread;
};

/// The messages of callbacks, in order, and the thread of each.
class Mailbox {
public:
    struct Entry {
        std::string text;
        unsigned long token;
        std::thread::id thread;
    };
    void put(const std::string& text, unsigned long token = 0)
    {
        const std::lock_guard<std::mutex> lock(mLock);
        mEntries.push_back({text, token, std::this_thread::get_id()});
        mChanged.notify_all();
    }
    /// Waits until there are `count` messages, for `atMost`, and returns all.
    std::vector<Entry> wait(std::size_t count, std::chrono::milliseconds atMost = std::chrono::seconds(5))
    {
        std::unique_lock<std::mutex> lock(mLock);
        mChanged.wait_for(lock, atMost, [&] { return mEntries.size() >= count; });
        return mEntries;
    }
    std::size_t size()
    {
        const std::lock_guard<std::mutex> lock(mLock);
        return mEntries.size();
    }

private:
    std::mutex mLock;
    std::condition_variable mChanged;
    std::vector<Entry> mEntries;
};

}  // namespace conformance

#endif
