// SPDX-License-Identifier: Apache-2.0
//
// Running something on the thread of a GLib main loop.
#ifndef WFOAL_POST_H
#define WFOAL_POST_H

#include <glib.h>

#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <utility>

#include "handles/Glib.h"

namespace wfoal {

/// Runs the task, which must not throw, on the thread that runs the context's loop. Does not wait. From any thread.
inline void postToContext(GMainContext* context, std::function<void()> task)
{
    // GLib's own locks are invisible to the thread sanitizer; this one tells it who came first.
    static std::mutex sHandover;
    using Task = std::function<void()>;
    const GSourceFunc run = [](gpointer data) -> gboolean {
        std::unique_lock<std::mutex>(sHandover).unlock();
        (*static_cast<Task*>(data))();
        return G_SOURCE_REMOVE;
    };
    const GSourcePtr source(g_idle_source_new());
    g_source_set_priority(source.get(), G_PRIORITY_DEFAULT);
    g_source_set_callback(source.get(), run, std::make_unique<Task>(std::move(task)).release(),
                          [](gpointer data) { delete static_cast<Task*>(data); });
    std::unique_lock<std::mutex>(sHandover).unlock();
    g_source_attach(source.get(), context);
}

/// The same, and waits until it is done. What the task throws is thrown here.
inline void callOnContext(GMainContext* context, const std::function<void()>& task)
{
    const auto done = std::make_shared<std::promise<void>>();  // shared: set_value() may end after get()
    std::future<void> end = done->get_future();
    postToContext(context, [&task, done] {
        try {
            task();
            done->set_value();
        } catch (...) {
            done->set_exception(std::current_exception());
        }
    });
    end.get();
}

}  // namespace wfoal

#endif
