// SPDX-License-Identifier: Apache-2.0
#include "FakePowerd.h"

#include <string>

#include "FakeCalls.h"

namespace fakes {

PowerState& power()
{
    static PowerState* state = new PowerState;
    return *state;
}

}  // namespace fakes

extern "C" bool PowerdGmainAttach(_GMainLoop* loop)
{
    fakes::power().loop = loop;
    fakes::recordCall("PowerdGmainAttach");
    return fakes::power().working;
}

extern "C" bool PowerdClientInit(const char* name)
{
    fakes::recordCall(std::string("PowerdClientInit ") + name);
    return fakes::power().working;
}

extern "C" bool PowerdClientDeinit()
{
    fakes::recordCall("PowerdClientDeinit");
    return fakes::power().working;
}

extern "C" bool PowerdResumeRegister(PowerdCallback callback)
{
    fakes::recordCall("PowerdResumeRegister");
    fakes::power().resume = callback;
    return fakes::power().working;
}

extern "C" bool PowerdSuspendedRegister(PowerdCallback callback)
{
    fakes::recordCall("PowerdSuspendedRegister");
    fakes::power().suspended = callback;
    return fakes::power().working;
}

extern "C" bool PowerdPrepareSuspendRegister(PowerdCallback callback)
{
    fakes::recordCall("PowerdPrepareSuspendRegister");
    fakes::power().prepareSuspend = callback;
    return fakes::power().working;
}

extern "C" bool PowerdPrepareSuspendAck(bool agreed)
{
    fakes::recordCall(agreed ? "PowerdPrepareSuspendAck 1" : "PowerdPrepareSuspendAck 0");
    return fakes::power().working;
}
