// SPDX-License-Identifier: Apache-2.0
#include "EventThread.h"

#include <glib.h>
#include <pthread.h>

#include <atomic>

#include "LeakCheck.h"
#include "Log.h"
#include "NetworkStatus.h"
#include "ObjectRegistry.h"
#include "QuorClient.h"
#include "SystemInterface.h"
#include "handles/Glib.h"
#include "powerd.h"

#pragma GCC visibility push(default)
extern "C" {
// Exported for the agent; nothing in the library locks it.
extern pthread_mutex_t gPowerLock;
pthread_mutex_t gPowerLock = PTHREAD_MUTEX_INITIALIZER;
}
#pragma GCC visibility pop

namespace {

constexpr char powerClientName[] = "norva-vpnagentd";
constexpr gulong suspendGraceMicroseconds = G_USEC_PER_SEC;

GMainContext* sGContext = nullptr;        // not null: the event side is started
std::atomic<GMainLoop*> sGLoop{nullptr};  // read by the event thread when it begins
GThread* sQuorEventThread = nullptr;

void forgetContext()
{
    g_main_context_unref(sGContext);
    sGContext = nullptr;
}

gboolean quitLoop(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

// Quits the loop directly and through a source of the highest priority: a direct quit is lost when the thread has not
// entered its loop yet. Destroy the source when the loop has ended.
GSourcePtr quit(GMainLoop* loop)
{
    GSourcePtr source(g_idle_source_new());
    g_source_set_priority(source.get(), G_MININT);
    g_source_set_callback(source.get(), quitLoop, loop, nullptr);
    g_source_attach(source.get(), sGContext);
    g_main_loop_quit(loop);
    return source;
}

void startBusClient(GMainLoop* loop)
{
    if (quorRegister(nullptr) && quorAttachToMainLoop(loop)) {
        quorWatchServiceStatus(connectionManagerService, handleConManServiceStatus);
    }
}

void startPowerClient(GMainLoop* loop)
{
    PowerdGmainAttach(loop);
    PowerdClientInit(powerClientName);
    PowerdResumeRegister(powerResumedCallback);
    PowerdSuspendedRegister(powerSuspendedCallback);
    PowerdPrepareSuspendRegister(powerPrepareSuspendCallback);
}

// False when there is no system object.
bool notifySystemInterface(void (SystemInterface::*notify)())
{
    const UseGuard use;
    SystemInterface* systemIf = use.systemIf();
    if (systemIf != nullptr) (systemIf->*notify)();
    return systemIf != nullptr;
}

}  // namespace

bool startQuorIpcHandling()
{
    WFOAL_DEBUG("%s: Called!", __func__);
    if (sGContext != nullptr) return true;
    sGContext = g_main_context_new();
    if (sGContext == nullptr) {
        WFOAL_ERROR("%s: Error Allocating new Context", __func__);
        return false;
    }
    GMainLoop* loop = g_main_loop_new(sGContext, FALSE);
    if (loop == nullptr) {
        WFOAL_ERROR("%s: Error Allocating Main Loop", __func__);
        forgetContext();
        return false;
    }
    wfoal::markIntentionalLeak(loop);  // never released
    sGLoop = loop;
    startBusClient(loop);

    GError* failure = nullptr;
    sQuorEventThread = g_thread_try_new("wfoal-events", eventProcessingThread, nullptr, &failure);
    if (sQuorEventThread == nullptr) {
        const GErrorPtr error(failure);
        WFOAL_ERROR("%s: Error creating event thread: %s", __func__, error->message);
        g_main_loop_quit(loop);
        sGLoop = nullptr;
        forgetContext();
        return false;
    }
    startPowerClient(loop);
    return true;
}

bool stopQuorIpcHandling()
{
    WFOAL_DEBUG("%s: Called!", __func__);
    if (sQuorEventThread != nullptr) {
        GSourcePtr quitting;
        if (GMainLoop* loop = sGLoop) {
            WFOAL_DEBUG("%s: Quitting Loop!", __func__);
            quitting = quit(loop);
            sGLoop = nullptr;
        }
        WFOAL_DEBUG("%s: Joining Thread!", __func__);
        g_thread_join(sQuorEventThread);
        if (quitting) g_source_destroy(quitting.get());
        sQuorEventThread = nullptr;
        WFOAL_DEBUG("%s: Thread Quit or not up!", __func__);
        forgetContext();
        WFOAL_DEBUG("%s: Deiniting powerd client!", __func__);
        PowerdClientDeinit();
    }
    WFOAL_DEBUG("%s: Finished!", __func__);
    return true;
}

void* eventProcessingThread(void*)
{
    GMainLoop* loop = sGLoop;
    if (loop == nullptr) return nullptr;
    WFOAL_DEBUG("%s: Running Event Processing Thread", __func__);
    g_main_loop_run(loop);
    WFOAL_DEBUG("%s: Stopping Event Processing Thread", __func__);
    return nullptr;
}

void powerResumedCallback()
{
    WFOAL_DEBUG("%s: Called. Device Resumed.", __func__);
    if (notifySystemInterface(&SystemInterface::notifyPowerResume)) {
        WFOAL_DEBUG("%s: notifyPowerResume done", __func__);
    }
}

void powerSuspendedCallback()
{
    WFOAL_DEBUG("%s: Called. Device Suspended", __func__);
}

void powerPrepareSuspendCallback()
{
    WFOAL_DEBUG("%s: Called!", __func__);
    if (notifySystemInterface(&SystemInterface::notifyPowerSuspended)) {
        g_usleep(suspendGraceMicroseconds);
        WFOAL_DEBUG("%s: notifyPowerSuspended successful", __func__);
    }
    PowerdPrepareSuspendAck(true);
}
