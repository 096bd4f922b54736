// SPDX-License-Identifier: Apache-2.0
//
// The power daemon's client on a platform that has no such daemon: every operation reports failure.
#include "powerd.h"

extern "C" bool PowerdGmainAttach(_GMainLoop*)
{
    return false;
}

extern "C" bool PowerdClientInit(const char*)
{
    return false;
}

extern "C" bool PowerdClientDeinit()
{
    return false;
}

extern "C" bool PowerdResumeRegister(PowerdCallback)
{
    return false;
}

extern "C" bool PowerdSuspendedRegister(PowerdCallback)
{
    return false;
}

extern "C" bool PowerdPrepareSuspendRegister(PowerdCallback)
{
    return false;
}

extern "C" bool PowerdPrepareSuspendAck(bool)
{
    return false;
}
