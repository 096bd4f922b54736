// SPDX-License-Identifier: Apache-2.0
//
// vesk-connectionmanager: the device's Wi-Fi and WAN status on the service bus, until SIGTERM or SIGINT.
#include <glib-unix.h>
#include <glib.h>

#include <csignal>
#include <cstdlib>

#include "ConnectionManager.h"
#include "handles/Glib.h"

namespace {

void quitOnSignal(int number, GMainLoop* loop)
{
    const GSourcePtr source(g_unix_signal_source_new(number));
    const GSourceFunc quit = [](gpointer data) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop*>(data));
        return G_SOURCE_CONTINUE;
    };
    g_source_set_callback(source.get(), quit, loop, nullptr);
    g_source_attach(source.get(), g_main_loop_get_context(loop));
}

}  // namespace

int main()
{
    const GMainContextPtr context(g_main_context_new());
    const GMainLoopPtr loop(g_main_loop_new(context.get(), FALSE));
    quitOnSignal(SIGTERM, loop.get());
    quitOnSignal(SIGINT, loop.get());
    conman::ConnectionManager manager;
    if (!manager.start(loop.get())) return EXIT_FAILURE;
    g_main_loop_run(loop.get());
    return EXIT_SUCCESS;
}
