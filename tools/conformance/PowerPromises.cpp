// SPDX-License-Identifier: Apache-2.0
//
// The promises of powerd.h. Suspend itself is not tested, so that the machine is never put to sleep.
#include <atomic>

#include "Platform.h"
#include "Threads.h"
#include "loop/LoopThread.h"
#include "powerd.h"

namespace conformance {

namespace {

constexpr char header[] = "powerd.h";

void onEvent() {}

void start(Platform& platform, GMainLoop* loop)
{
    expect(POWERD(PowerdGmainAttach)(loop), "PowerdGmainAttach() failed");
    expect(POWERD(PowerdClientInit)("conformance"), "PowerdClientInit() failed");
    expect(POWERD(PowerdResumeRegister)(onEvent), "PowerdResumeRegister() failed");
    expect(POWERD(PowerdSuspendedRegister)(onEvent), "PowerdSuspendedRegister() failed");
    expect(POWERD(PowerdPrepareSuspendRegister)(onEvent), "PowerdPrepareSuspendRegister() failed");
}

void stop(Platform& platform)
{
    expect(POWERD(PowerdClientDeinit)(), "PowerdClientDeinit() failed");
}

void exportsItsFunctions(Platform& platform)
{
    POWERD(PowerdGmainAttach);
    POWERD(PowerdClientInit);
    POWERD(PowerdClientDeinit);
    POWERD(PowerdResumeRegister);
    POWERD(PowerdSuspendedRegister);
    POWERD(PowerdPrepareSuspendRegister);
    POWERD(PowerdPrepareSuspendAck);
}

void deinitIsHarmless(Platform& platform)
{
    stop(platform);
    stop(platform);
}

void startsWithoutDaemon(Platform& platform)
{
    // Where the platform finds its daemon this way, there is none now.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    wfoal::LoopThread thread;
    start(platform, thread.loop());
    stop(platform);
}

void attachComesFirst(Platform& platform)
{
    expect(!POWERD(PowerdClientInit)("conformance"), "PowerdClientInit() succeeded before PowerdGmainAttach()");
    stop(platform);
}

void refusesNullArguments(Platform& platform)
{
    expect(!POWERD(PowerdGmainAttach)(nullptr), "a null loop was taken");
    wfoal::LoopThread thread;
    expect(POWERD(PowerdGmainAttach)(thread.loop()), "PowerdGmainAttach() failed after a null loop");
    expect(!POWERD(PowerdClientInit)(nullptr), "a null name was taken");
    stop(platform);
}

void nullRemovesCallback(Platform& platform)
{
    wfoal::LoopThread thread;
    start(platform, thread.loop());
    expect(POWERD(PowerdResumeRegister)(nullptr) && POWERD(PowerdSuspendedRegister)(nullptr) &&
               POWERD(PowerdPrepareSuspendRegister)(nullptr),
           "a null callback was refused");
    stop(platform);
}

void oneClientAProcess(Platform& platform)
{
    wfoal::LoopThread thread;
    start(platform, thread.loop());
    expect(!POWERD(PowerdGmainAttach)(thread.loop()), "a second client was taken");
    stop(platform);
}

void ownerMayReleaseTheLoop(Platform& platform)
{
    GMainContextPtr context(g_main_context_new());
    GMainLoopPtr loop(g_main_loop_new(context.get(), FALSE));
    expect(POWERD(PowerdGmainAttach)(loop.get()), "PowerdGmainAttach() failed");
    loop.reset();
    context.reset();
    expect(POWERD(PowerdClientInit)("conformance"), "PowerdClientInit() failed");
    expect(POWERD(PowerdResumeRegister)(onEvent), "PowerdResumeRegister() failed");
    stop(platform);
}

void startsAgain(Platform& platform)
{
    for (int round = 0; round < 10; ++round) {
        wfoal::LoopThread thread;
        start(platform, thread.loop());
        stop(platform);
    }
}

void callsFromAnyThread(Platform& platform)
{
    wfoal::LoopThread thread;
    start(platform, thread.loop());
    auto& onResume = POWERD(PowerdResumeRegister);
    auto& onSuspended = POWERD(PowerdSuspendedRegister);
    std::atomic<int> failures{0};
    onThreads(4, [&](int) {
        for (int round = 0; round < 200; ++round)
            failures += onResume(round % 2 != 0 ? onEvent : nullptr) && onSuspended(onEvent) ? 0 : 1;
    });
    expect(failures == 0, std::to_string(failures) + " of 800 registrations failed");
    stop(platform);
}

void deinitOnTheLoopsThread(Platform& platform)
{
    wfoal::LoopThread thread;
    start(platform, thread.loop());
    bool done = false;
    auto& deinit = POWERD(PowerdClientDeinit);
    thread.call([&] { done = deinit(); });
    expect(done, "PowerdClientDeinit() failed on the loop's thread");
}

void leavesNothingBehind(Platform& platform)
{
    startsAgain(platform);  // GLib has allocated by now what it never frees
    platform.unload("powerd.h");
    const ProcessResources before = currentResources();
    for (int round = 0; round < 5; ++round) {
        startsAgain(platform);
        platform.unload("powerd.h");
    }
    expectNothingLeft(before);
}

void unloadWithoutDeinit(Platform& platform)
{
    startsAgain(platform);
    platform.unload("powerd.h");
    const ProcessResources before = currentResources();
    for (int round = 0; round < 5; ++round) {
        {
            wfoal::LoopThread thread;  // ends first: nothing may run in a library that is being unloaded
            start(platform, thread.loop());
        }
        platform.unload("powerd.h");
    }
    expectNothingLeft(before);
}

void tellsOfSleep(Platform&)
{
    throw Untestable{"needs a device that goes to sleep"};
}

}  // namespace

const Promises& powerPromises()
{
    static const Promises promises = {
        {header, "exports its seven functions", exportsItsFunctions},
        {header, "deinitialising is harmless when nothing was initialised", deinitIsHarmless},
        {header, "a missing daemon is no failure", startsWithoutDaemon},
        {header, "attaching is the first of the calls", attachComesFirst},
        {header, "a null loop and a null name are refused", refusesNullArguments},
        {header, "a null callback removes one", nullRemovesCallback},
        {header, "one client a process", oneClientAProcess},
        {header, "the loop's owner may release it once it is attached", ownerMayReleaseTheLoop},
        {header, "after deinitialising it can be used again", startsAgain},
        {header, "calls may come from any thread", callsFromAnyThread},
        {header, "deinitialising works on the loop's own thread", deinitOnTheLoopsThread},
        {header, "unloading leaves no descriptor and no thread", leavesNothingBehind},
        {header, "unloading without deinitialising does so too", unloadWithoutDeinit},
        {header, "before sleep, at sleep and after it the callbacks run on the loop's thread, in this order",
         tellsOfSleep},
    };
    return promises;
}

}  // namespace conformance
