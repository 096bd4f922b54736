// SPDX-License-Identifier: Apache-2.0
//
// Owners of GLib objects.
#ifndef HANDLES_GLIB_H
#define HANDLES_GLIB_H

#include <glib.h>

#include <memory>

struct GErrorReleaser {
    void operator()(GError* error) const { g_error_free(error); }
};
using GErrorPtr = std::unique_ptr<GError, GErrorReleaser>;

struct GSourceReleaser {
    void operator()(GSource* source) const { g_source_unref(source); }
};
using GSourcePtr = std::unique_ptr<GSource, GSourceReleaser>;

struct GMainContextReleaser {
    void operator()(GMainContext* context) const { g_main_context_unref(context); }
};
using GMainContextPtr = std::unique_ptr<GMainContext, GMainContextReleaser>;

struct GMainLoopReleaser {
    void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
};
using GMainLoopPtr = std::unique_ptr<GMainLoop, GMainLoopReleaser>;

#endif
