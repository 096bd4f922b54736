// SPDX-License-Identifier: Apache-2.0
//
// A GLib main loop on a thread of its own, as a library's user has one.
#ifndef WFOAL_LOOPTHREAD_H
#define WFOAL_LOOPTHREAD_H

#include <glib.h>

#include <exception>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

#include "handles/Glib.h"

namespace wfoal {

/// Runs something on the thread that runs a context's loop, and waits for it. What it throws is thrown here.
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
        try {
            call.task();
            call.done.set_value();
        } catch (...) {
            call.done.set_exception(std::current_exception());
        }
        return G_SOURCE_REMOVE;
    };
    g_source_set_callback(source.get(), run, &posted, nullptr);
    std::unique_lock<std::mutex>(sHandover).unlock();
    g_source_attach(source.get(), context);
    done.get();
}

/// The loop's context is the default one of its thread.
class LoopThread {
public:
    LoopThread() : mContext(g_main_context_new()), mLoop(g_main_loop_new(mContext.get(), FALSE))
    {
        mThread = std::thread([this] {
            g_main_context_push_thread_default(mContext.get());
            g_main_loop_run(mLoop.get());
            g_main_context_pop_thread_default(mContext.get());
        });
        call([] {});  // a quit before the loop runs would be lost
    }
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;
    ~LoopThread()
    {
        call([this] { g_main_loop_quit(mLoop.get()); });
        mThread.join();
    }

    GMainLoop* loop() const { return mLoop.get(); }
    std::thread::id id() const { return mThread.get_id(); }
    /// Runs a task on the loop's thread and waits for it. What it throws is thrown here.
    void call(const std::function<void()>& task) { callOnContext(mContext.get(), task); }

private:
    GMainContextPtr mContext;
    GMainLoopPtr mLoop;
    std::thread mThread;
};

}  // namespace wfoal

#endif
