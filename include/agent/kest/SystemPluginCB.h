// SPDX-License-Identifier: Apache-2.0
//
// The agent's callback record: how the system interface tells the agent what happened to device and tunnel.
// The agent implements it, hands it to KEST_SystemPlugin::SetSystemPluginCB() and keeps it alive until the system
// object is disposed of. The plug-in only calls it: it never creates, copies or frees one.
#ifndef KEST_SYSTEMPLUGINCB_H
#define KEST_SYSTEMPLUGINCB_H

#include <cstdint>

class KEST_SystemPluginCB {
public:
    /// The device is about to sleep. Called on the plug-in's event thread; the device waits one second for it.
    virtual void OnPowerSuspended() = 0;
    /// The device is awake again. Called on the plug-in's event thread.
    virtual void OnPowerResume() = 0;
    /// The physical network changed so that the outer connection should be made again. `reserved` is always 0.
    /// Called on the plug-in's event thread.
    virtual void OnConnectionChange(std::uint32_t reserved) = 0;
    /// The tunnel's configuration was applied or removed. Called on the agent's thread, from inside
    /// ApplyConfiguration() and RestoreSystemConfiguration().
    virtual void OnConfigurationChange() = 0;
    virtual ~KEST_SystemPluginCB() {}
};

#endif
