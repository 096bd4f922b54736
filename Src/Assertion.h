// SPDX-License-Identifier: Apache-2.0
//
// Invariants whose breach the process cannot survive.
#ifndef WFOAL_ASSERTION_H
#define WFOAL_ASSERTION_H

#include <glib.h>

/// Aborts the process through GLib when the expression is false; `file` is how the message names the source.
#define WFOAL_ASSERT(file, line, expression)                                                                \
    do {                                                                                                    \
        if (!(expression)) {                                                                                \
            g_assertion_message_expr(nullptr, file, line, static_cast<const char*>(__func__), #expression); \
        }                                                                                                   \
    } while (false)

#endif
