// SPDX-License-Identifier: Apache-2.0
#include "Broken.h"
#include "powerd.h"

extern "C" bool PowerdGmainAttach(_GMainLoop* loop)
{
    if (broken("null loop taken") && loop == nullptr) return true;
    if (broken("a second client taken")) return REAL(PowerdGmainAttach)(loop) || loop != nullptr;
    if (broken("a descriptor a client")) leakDescriptor();
    return REAL(PowerdGmainAttach)(loop);
}

extern "C" bool PowerdClientInit(const char* name)
{
    if (broken("not without a daemon")) return false;
    if (broken("starts before it is attached")) return true;
    if (broken("crash at a null name") && name == nullptr) std::abort();
    return REAL(PowerdClientInit)(name);
}

extern "C" bool PowerdClientDeinit()
{
    if (broken("deinit does nothing")) return true;
    if (broken("deinit fails")) return REAL(PowerdClientDeinit)() && false;
    if (broken("deinit hangs")) std::this_thread::sleep_for(std::chrono::minutes(1));
    return REAL(PowerdClientDeinit)();
}

extern "C" bool PowerdResumeRegister(PowerdCallback callback)
{
    return REAL(PowerdResumeRegister)(callback);
}

extern "C" bool PowerdSuspendedRegister(PowerdCallback callback)
{
    if (broken("one thread only")) {
        static const std::thread::id sFirst = std::this_thread::get_id();
        if (std::this_thread::get_id() != sFirst) return false;
    }
    return REAL(PowerdSuspendedRegister)(callback);
}

extern "C" bool PowerdPrepareSuspendRegister(PowerdCallback callback)
{
    if (broken("null callback refused") && callback == nullptr) return false;
    return REAL(PowerdPrepareSuspendRegister)(callback);
}
// PowerdPrepareSuspendAck: the real library's, unless it is looked for here, which is a fault of its own.
