// SPDX-License-Identifier: Apache-2.0
//
// The main loop of a service: it runs until SIGTERM or SIGINT. Where systemd asks for it, the loop notifies it that the
// service is ready, and then feeds its watchdog.
#ifndef SERVICES_SERVICELOOP_H
#define SERVICES_SERVICELOOP_H

#include <glib-unix.h>
#include <glib.h>
#include <systemd/sd-daemon.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "handles/Glib.h"

namespace services {

class ServiceLoop {
public:
    ServiceLoop() : mContext(g_main_context_new()), mLoop(g_main_loop_new(mContext.get(), FALSE))
    {
        quitOn(SIGTERM);
        quitOn(SIGINT);
    }

    GMainLoop* get() const { return mLoop.get(); }
    /// To be called when the service is reachable.
    void run()
    {
        feedWatchdog();
        sd_notify(0, "READY=1");
        g_main_loop_run(mLoop.get());
        sd_notify(0, "STOPPING=1");
    }

private:
    void feedWatchdog()
    {
        std::uint64_t limit = 0;
        if (sd_watchdog_enabled(0, &limit) <= 0) return;
        const GSourcePtr source(g_timeout_source_new(static_cast<guint>(limit / 1000 / 2)));
        const GSourceFunc feed = [](gpointer) -> gboolean {
            sd_notify(0, "WATCHDOG=1");
            return G_SOURCE_CONTINUE;
        };
        g_source_set_callback(source.get(), feed, nullptr, nullptr);
        g_source_attach(source.get(), mContext.get());
    }
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

/// The whole life of a service, and its exit code.
template <typename Service>
int runService()
{
    try {
        ServiceLoop loop;
        Service service;
        if (!service.start(loop.get())) return EXIT_FAILURE;
        loop.run();
        return EXIT_SUCCESS;
    } catch (const std::bad_alloc&) {
        std::fputs("out of memory\n", stderr);
        return EXIT_FAILURE;
    }
}

}  // namespace services

#endif
