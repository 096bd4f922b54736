/* SPDX-License-Identifier: Apache-2.0
 *
 * libpowerd for a device that never sleeps: the plug-in enters itself and is never called.
 *
 * For a device: call prepareSuspend before it sleeps and wait for PowerdPrepareSuspendAck(true); then suspended; resume
 * when it is awake again. All three on the thread that runs the loop given to PowerdGmainAttach(). */
#include "powerd.h"

#include <stdatomic.h>

static const PowerdCallback nobody = 0;

/* The one client of this process. Calls may come from any thread. */
static struct {
    atomic_bool attached;
    _Atomic(PowerdCallback) prepareSuspend;
    _Atomic(PowerdCallback) suspended;
    _Atomic(PowerdCallback) resume;
} sClient;

bool PowerdGmainAttach(struct _GMainLoop* loop)
{
    return loop != 0 && !atomic_exchange(&sClient.attached, true);
}

/* That there is no power daemon is no failure: nobody waits for the device to sleep. */
bool PowerdClientInit(const char* name)
{
    return name != 0 && sClient.attached;
}

bool PowerdClientDeinit(void)
{
    sClient.prepareSuspend = nobody;
    sClient.suspended = nobody;
    sClient.resume = nobody;
    sClient.attached = false;
    return true;
}

bool PowerdResumeRegister(PowerdCallback callback)
{
    if (!sClient.attached) return false;
    sClient.resume = callback;
    return true;
}

bool PowerdSuspendedRegister(PowerdCallback callback)
{
    if (!sClient.attached) return false;
    sClient.suspended = callback;
    return true;
}

bool PowerdPrepareSuspendRegister(PowerdCallback callback)
{
    if (!sClient.attached) return false;
    sClient.prepareSuspend = callback;
    return true;
}

bool PowerdPrepareSuspendAck(bool agreed)
{
    (void)agreed;
    return sClient.attached;
}
