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

/* Promises: callbacks come on the thread that runs this loop. First of the calls, once; the library keeps a
 * reference of its own to the loop.
 * For a device: g_main_loop_ref(), and a source in the loop's context that reads what the daemon sends.
 * Tried by: "exports its seven functions", "attaching is the first of the calls", "a null loop and a null name are
 * refused", "the loop's owner may release it once it is attached", "one client a process" */
bool PowerdGmainAttach(struct _GMainLoop* loop)
{
    return loop != 0 && !atomic_exchange(&sClient.attached, true);
}

/* Promises: this process is known to the daemon, or will be when the daemon appears; that there is none is no
 * failure.
 * Tried by: "a missing daemon is no failure" */
bool PowerdClientInit(const char* name)
{
    return name != 0 && sClient.attached;
}

/* Promises: all is released, and no callback runs afterwards. On any thread, the loop's own too; harmless without
 * the other calls, and all can begin again.
 * For a device: remove the source, and release the loop.
 * Tried by: "deinitialising is harmless when nothing was initialised", "after deinitialising it can be used again",
 * "deinitialising works on the loop's own thread", "unloading leaves no descriptor and no thread", "unloading
 * without deinitialising does so too" */
bool PowerdClientDeinit(void)
{
    sClient.prepareSuspend = nobody;
    sClient.suspended = nobody;
    sClient.resume = nobody;
    sClient.attached = false;
    return true;
}

/* Promises: the callback replaces the one before it, and null removes it; on any thread. It is called when the
 * device is awake again.
 * Tried by: "a null callback removes one", "calls may come from any thread", "before sleep, at sleep and after it
 * the callbacks run on the loop's thread, in this order" */
bool PowerdResumeRegister(PowerdCallback callback)
{
    if (!sClient.attached) return false;
    sClient.resume = callback;
    return true;
}

/* Promises: the same; it is called after the answer to prepare-suspend, when the device is about to sleep.
 * Tried by: "before sleep, at sleep and after it the callbacks run on the loop's thread, in this order" */
bool PowerdSuspendedRegister(PowerdCallback callback)
{
    if (!sClient.attached) return false;
    sClient.suspended = callback;
    return true;
}

/* Promises: the same; it is called before the device sleeps, which waits for the answer.
 * Tried by: "before sleep, at sleep and after it the callbacks run on the loop's thread, in this order" */
bool PowerdPrepareSuspendRegister(PowerdCallback callback)
{
    if (!sClient.attached) return false;
    sClient.prepareSuspend = callback;
    return true;
}

/* Promises: the answer: true lets the device sleep.
 * For a device: pass it on to the daemon. The plug-in answers one second after it was asked.
 * Tried by: "before sleep, at sleep and after it the callbacks run on the loop's thread, in this order" */
bool PowerdPrepareSuspendAck(bool agreed)
{
    (void)agreed;
    return sClient.attached;
}
