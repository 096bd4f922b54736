/* SPDX-License-Identifier: Apache-2.0
 *
 * The log: named contexts with a threshold, and printing. Thread-safe. Contexts belong to the library and live until
 * the process ends or the library is unloaded.
 */
#ifndef VKLOGLIB_H
#define VKLOGLIB_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* Levels are syslog's: 3 error, 4 warning, 6 info, 7 debug. */
typedef struct VkLogContext {
    int32_t level; /* messages up to this level are wanted; callers test it before they format */
    /* more fields follow, private to the library */
} VkLogContext;

/* Stores the context called `name`, made at the first call. Returns 0; else an errno value, and `context` is left
 * alone. */
int VkLogGetContext(const char* name, VkLogContext** context);

/* Prints one message. A null context prints whatever the level is. */
void VkLogPrint(VkLogContext* context, int level, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
