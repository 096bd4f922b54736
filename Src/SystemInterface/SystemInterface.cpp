// SPDX-License-Identifier: Apache-2.0
//
// Identity of the system interface, and the agent's callback record.
#include "SystemInterface.h"

#include "Log.h"
#include "ObjectRegistry.h"
#include "PluginIdentifier.h"

namespace {

// Ends the use of the system object first, because DisposePlugin() does not wait for the agent's code. From there on
// the object may be destroyed.
template <typename Notify>
void notifyAgent(KEST_SystemPluginCB* callback, Notify notify)
{
    UseGuard::endOnThisThread();
    if (callback != nullptr) notify(*callback);
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
    notifyAgent(mpSystemPluginCB, [](KEST_SystemPluginCB& agent) { agent.OnConnectionChange(0); });
}

void SystemInterface::notifyPowerResume()
{
    notifyAgent(mpSystemPluginCB, [](KEST_SystemPluginCB& agent) { agent.OnPowerResume(); });
}

void SystemInterface::notifyPowerSuspended()
{
    notifyAgent(mpSystemPluginCB, [](KEST_SystemPluginCB& agent) { agent.OnPowerSuspended(); });
}
