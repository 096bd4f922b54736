// SPDX-License-Identifier: Apache-2.0
//
// Invariants without which the process cannot go on. An assertion aborts it.
#ifndef WFOAL_ASSERTION_H
#define WFOAL_ASSERTION_H

#include <glib.h>

/// Aborts the process through GLib when the expression is false. The message holds `file`, `line`, the function and the
/// expression. Where `line` is a number, the whole text is fixed, whatever line the assertion is on.
#define WFOAL_ASSERT(file, line, expression)                                                                \
    do {                                                                                                    \
        if (!(expression)) {                                                                                \
            g_assertion_message_expr(nullptr, file, line, static_cast<const char*>(__func__), #expression); \
        }                                                                                                   \
    } while (false)

#endif
