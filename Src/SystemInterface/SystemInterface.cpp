// SPDX-License-Identifier: Apache-2.0
//
// What the system interface has beside its configuration: its identity and the agent's callback record.
#include "SystemInterface.h"

#include "InterfaceCommon.h"
#include "Log.h"
#include "ObjectRegistry.h"

namespace {

// The system object may be gone from here on: nothing waits for the agent's code.
template <typename Tell>
void tellAgent(KEST_SystemPluginCB* callback, Tell tell)
{
    UseGuard::endOnThisThread();
    if (callback != nullptr) tell(*callback);
}

}  // namespace

bool SystemInterface::SupportsInterface(const char* name, unsigned int)
{
    WFOAL_DEBUG("SystemInterface::%s: called!!! Interface Name being requested: %s", __func__, name);
    return wfoal::isInterfaceName(name, KEST_SYSTEM_INTERFACE);
}

PluginResult SystemInterface::GetLastErrorString(char*, unsigned int)
{
    return PLUGIN_BUFFER_TOO_SMALL;
}

PluginResult SystemInterface::SetSystemPluginCB(KEST_SystemPluginCB* callback)
{
    WFOAL_DEBUG("SystemInterface::%s called!!!", __func__);
    if (callback == nullptr) WFOAL_ERROR("SystemInterface::%s Null System Plugin Callback sent!!!", __func__);
    mpSystemPluginCB = callback;
    return callback != nullptr ? PLUGIN_SUCCESS : PLUGIN_FAILURE;
}

void SystemInterface::notifyConnectionChange()
{
    tellAgent(mpSystemPluginCB, [](KEST_SystemPluginCB& agent) { agent.OnConnectionChange(0); });
}

void SystemInterface::notifyPowerResume()
{
    tellAgent(mpSystemPluginCB, [](KEST_SystemPluginCB& agent) { agent.OnPowerResume(); });
}

void SystemInterface::notifyPowerSuspended()
{
    tellAgent(mpSystemPluginCB, [](KEST_SystemPluginCB& agent) { agent.OnPowerSuspended(); });
}
