// SPDX-License-Identifier: Apache-2.0
//
// The main loop of a service: it runs until SIGTERM or SIGINT.
#ifndef SERVICELOOP_H
#define SERVICELOOP_H

#include <glib-unix.h>
#include <glib.h>

#include <csignal>

#include "handles/Glib.h"

class ServiceLoop {
public:
    ServiceLoop() : mContext(g_main_context_new()), mLoop(g_main_loop_new(mContext.get(), FALSE))
    {
        quitOn(SIGTERM);
        quitOn(SIGINT);
    }

    GMainLoop* get() const { return mLoop.get(); }
    void run() { g_main_loop_run(mLoop.get()); }

private:
    void quitOn(int signalNumber)
    {
        const GSourcePtr source(g_unix_signal_source_new(signalNumber));
        const GSourceFunc quit = [](gpointer data) -> gboolean {
            g_main_loop_quit(static_cast<GMainLoop*>(data));
            return G_SOURCE_CONTINUE;
        };
        g_source_set_callback(source.get(), quit, mLoop.get(), nullptr);
        g_source_attach(source.get(), mContext.get());
    }

    GMainContextPtr mContext;
    GMainLoopPtr mLoop;
};

#endif
