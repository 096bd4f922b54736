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

extern "C" bool PowerdGmainAttach(_GMainLoop*)
{
    fakes::recordCall("PowerdGmainAttach");
    return true;
}

extern "C" bool PowerdClientInit(const char* name)
{
    fakes::recordCall(std::string("PowerdClientInit ") + name);
    return true;
}

extern "C" bool PowerdClientDeinit()
{
    fakes::recordCall("PowerdClientDeinit");
    return true;
}

extern "C" bool PowerdResumeRegister(PowerdCallback callback)
{
    fakes::recordCall("PowerdResumeRegister");
    fakes::power().resume = callback;
    return true;
}

extern "C" bool PowerdSuspendedRegister(PowerdCallback callback)
{
    fakes::recordCall("PowerdSuspendedRegister");
    fakes::power().suspended = callback;
    return true;
}

extern "C" bool PowerdPrepareSuspendRegister(PowerdCallback callback)
{
    fakes::recordCall("PowerdPrepareSuspendRegister");
    fakes::power().prepareSuspend = callback;
    return true;
}

extern "C" bool PowerdPrepareSuspendAck(bool agreed)
{
    fakes::recordCall(agreed ? "PowerdPrepareSuspendAck 1" : "PowerdPrepareSuspendAck 0");
    return true;
}
