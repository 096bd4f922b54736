// SPDX-License-Identifier: Apache-2.0
#include "EventThreadFixture.h"

#include <string>

#include "EventThread.h"
#include "FakeCalls.h"
#include "FakePowerd.h"
#include "FakeQuorService.h"
#include "FakeVkLog.h"
#include "LoopThread.h"
#include "ObjectRegistry.h"

using eventthread::Failing;
using eventthread::glib;

// GLib's own, or a failure when a test wants one.
extern "C" {
GMainContext* __real_g_main_context_new();
GMainContext* __wrap_g_main_context_new();
GMainLoop* __real_g_main_loop_new(GMainContext* context, gboolean isRunning);
GMainLoop* __wrap_g_main_loop_new(GMainContext* context, gboolean isRunning);
void __real_g_main_loop_run(GMainLoop* loop);
void __wrap_g_main_loop_run(GMainLoop* loop);
void __real_g_main_context_unref(GMainContext* context);
void __wrap_g_main_context_unref(GMainContext* context);
void __real_g_usleep(gulong microseconds);
void __wrap_g_usleep(gulong microseconds);
GThread* __real_g_thread_try_new(const gchar* name, GThreadFunc function, gpointer data, GError** error);
GThread* __wrap_g_thread_try_new(const gchar* name, GThreadFunc function, gpointer data, GError** error);
}

GMainContext* __wrap_g_main_context_new()
{
    glib().releases = 0;
    glib().lastContext = glib().failing == Failing::Context ? nullptr : __real_g_main_context_new();
    return glib().lastContext;
}

GMainLoop* __wrap_g_main_loop_new(GMainContext* context, gboolean isRunning)
{
    glib().lastLoop = glib().failing == Failing::Loop ? nullptr : __real_g_main_loop_new(context, isRunning);
    return glib().lastLoop;
}

void __wrap_g_main_loop_run(GMainLoop* loop)
{
    if (glib().beforeRun) glib().beforeRun();
    __real_g_main_loop_run(loop);
    if (glib().afterRun) glib().afterRun();
}

void __wrap_g_main_context_unref(GMainContext* context)
{
    if (context == glib().lastContext) ++glib().releases;
    __real_g_main_context_unref(context);
}

void __wrap_g_usleep(gulong microseconds)
{
    fakes::recordCall("g_usleep " + std::to_string(microseconds));
    __real_g_usleep(microseconds);
}

GThread* __wrap_g_thread_try_new(const gchar* name, GThreadFunc function, gpointer data, GError** error)
{
    if (glib().failing != Failing::Thread) return __real_g_thread_try_new(name, function, data, error);
    g_set_error(error, G_THREAD_ERROR, G_THREAD_ERROR_AGAIN, "no more threads");
    return nullptr;
}

namespace eventthread {

Glib& glib()
{
    static Glib sGlib;
    return sGlib;
}

void sleepMicroseconds(gulong microseconds)
{
    __real_g_usleep(microseconds);
}

void Fixture::SetUp()
{
    glib().failing = Failing::Nothing;
    fakes::bus() = {};
    fakes::power() = {};
    fakes::clearCalls();
    fakes::clearLog();
}

void Fixture::TearDown()
{
    glib().failing = Failing::Nothing;
    glib().beforeRun = nullptr;
    glib().afterRun = nullptr;
    fakes::recordLogInCalls(false);
    stopQuorIpcHandling();
    setSystemIfObject(nullptr);
    EXPECT_EQ(nullptr, g_main_context_get_thread_default());
}

std::vector<std::string> Fixture::ownLog()
{
    std::vector<std::string> lines;
    for (const fakes::LogLine& line : fakes::logLines()) {
        EXPECT_EQ(7, line.level) << line.text;
        if (line.text.rfind("eventProcessingThread", 0) != 0) lines.push_back(line.text);
    }
    return lines;
}

void Fixture::onEventThread(const std::function<void()>& task)
{
    testsupport::callOnContext(g_main_loop_get_context(glib().lastLoop), task);
}

}  // namespace eventthread
