// SPDX-License-Identifier: Apache-2.0
//
// A GLib main loop on a thread of its own, as a library's user has one.
#ifndef WFOAL_LOOPTHREAD_H
#define WFOAL_LOOPTHREAD_H

#include <glib.h>

#include <functional>
#include <thread>

#include "handles/Glib.h"
#include "loop/Post.h"

namespace wfoal {

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
