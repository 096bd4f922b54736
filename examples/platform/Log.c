/* SPDX-License-Identifier: Apache-2.0
 *
 * libVkLogLib: every message goes to stderr as one line. VKLOG_LEVEL (0 to 7) is the threshold of all contexts, 6 when
 * it is not set.
 *
 * For a device: hand the line to its own log. Contexts may be looked up and used on any thread, as here. */
#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "VkLogLib.h"

struct NamedContext {
    VkLogContext head; /* first, so that a pointer to it is a pointer to the whole */
    struct NamedContext* next;
    char name[];
};

/* Contexts are never released: whoever has one may print for as long as the process lives. */
static struct NamedContext* sContexts;
static pthread_mutex_t sContextsLock = PTHREAD_MUTEX_INITIALIZER;

static struct NamedContext* findOrMake(const char* name)
{
    for (struct NamedContext* known = sContexts; known != NULL; known = known->next) {
        if (strcmp(known->name, name) == 0) return known;
    }
    struct NamedContext* made = calloc(1, sizeof *made + strlen(name) + 1);
    if (made == NULL) return NULL;
    const char* level = getenv("VKLOG_LEVEL");
    made->head.level = level != NULL ? atoi(level) : 6;
    strcpy(made->name, name);
    made->next = sContexts;
    sContexts = made;
    return made;
}

/* Promises: a context of this name, made at the first call and valid until the process ends; on any thread. 0, or an
 * errno value, and then the caller's pointer stays. The context begins with its threshold, a level of syslog, which
 * the plug-in reads and may change.
 * For a device: take the threshold from the device's own log settings.
 * Tried by: "exports its two functions", "a context is made at the first call for its name", "a name has one
 * context, and two names have two", "a new context's threshold is a level of syslog", "a failure is an errno value
 * and leaves the caller's pointer alone", "contexts can be had on any thread" */
int VkLogGetContext(const char* name, VkLogContext** context)
{
    if (name == NULL || context == NULL) return EINVAL;
    pthread_mutex_lock(&sContextsLock);
    struct NamedContext* found = findOrMake(name);
    pthread_mutex_unlock(&sContextsLock);
    if (found == NULL) return ENOMEM;
    *context = &found->head;
    return 0;
}

/* Promises: one message at a level, formatted as printf() does; none above the context's threshold, but all without
 * a context. Whole, also when several threads print. errno stays.
 * For a device: hand the line to the device's log, without waiting for long. Passwords may be among messages of
 * level 7.
 * Tried by: "a message is printed as printf() would", "a null context prints whatever the level is", "messages of
 * several threads stay whole", "unloading leaves no descriptor and no thread" */
void VkLogPrint(VkLogContext* context, int level, const char* format, ...)
{
    if (format == NULL || (context != NULL && level > context->level)) return;
    const int errorBefore = errno; /* callers log in the middle of their error handling */
    va_list values;
    va_start(values, format);
    flockfile(stderr); /* lines of two threads do not mix */
    fprintf(stderr, "%s[%d]: ", context != NULL ? ((struct NamedContext*)context)->name : "vklog", level);
    vfprintf(stderr, format, values);
    fputc('\n', stderr);
    funlockfile(stderr);
    va_end(values);
    errno = errorBefore;
}
