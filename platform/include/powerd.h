/* SPDX-License-Identifier: Apache-2.0
 *
 * The power daemon's client: told before the device sleeps, when it does, and when it is awake again. One client a
 * process. Calls may come from any thread; every callback runs on the thread that runs the attached main loop.
 *
 * Operations return true on success. A missing daemon is no failure: it is picked up when it appears.
 */
#ifndef POWERD_H
#define POWERD_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

struct _GMainLoop;

typedef void (*PowerdCallback)(void);

/* Has the loop deliver this client's callbacks; the first of the calls. Keeps a reference to the loop until
 * PowerdClientDeinit(). */
bool PowerdGmainAttach(struct _GMainLoop* loop);
/* Enters this process with the daemon under `name`. */
bool PowerdClientInit(const char* name);
/* Leaves the daemon and releases everything; no callback runs afterwards. Harmless when never initialised. */
bool PowerdClientDeinit(void);

/* Each replaces an earlier callback of its kind; null removes it. */
bool PowerdResumeRegister(PowerdCallback callback);
bool PowerdSuspendedRegister(PowerdCallback callback);
bool PowerdPrepareSuspendRegister(PowerdCallback callback);

/* Answers the prepare-suspend callback: true lets the device sleep. */
bool PowerdPrepareSuspendAck(bool agreed);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
