// SPDX-License-Identifier: Apache-2.0
//
// The tunnel that `connect` holds: its device, its configuration, and the command that runs while it is up. The end of
// the object ends the command, restores the configuration and removes the device, in this order.
#ifndef VPNOALCTL_HELDTUNNEL_H
#define VPNOALCTL_HELDTUNNEL_H

#include <optional>
#include <string>

#include "PluginLibrary.h"
#include "process/Subprocess.h"
#include "profile/Profile.h"
#include "tunnel/LinkWatch.h"
#include "tunnel/OwnershipWatch.h"
#include "tunnel/TunDevice.h"

namespace vpnoalctl {

class HeldTunnel {
public:
    /// Makes the device and installs the configuration. The plug-in calls `callbacks` from then on. Throws CommandError
    /// when the plug-in or its platform refuses; nothing stays then but a strict guard that was there before.
    HeldTunnel(const PluginLibrary& plugin, const Profile& profile, KEST_SystemPluginCB& callbacks);
    HeldTunnel(const HeldTunnel&) = delete;
    HeldTunnel& operator=(const HeldTunnel&) = delete;

    /// The device's descriptor.
    int device() const { return mDevice.descriptor(); }
    /// Become readable when it is time to call check().
    int linkDescriptor() const { return mLink->descriptor(); }
    int ownershipDescriptor() const { return mOwnership->descriptor(); }

    /// Starts a shell command. `inherited`, a descriptor or -1, is open in it under the same number.
    void start(const std::string& command, int inherited);
    /// The command's exit status once it has ended, as a shell reports it: 128 and the signal's number for a killed
    /// command. Throws CommandError when somebody removed the device or the configuration.
    std::optional<int> check();
    /// Ends the command and returns its exit status; ExitOk without one.
    int endCommand();

private:
    // Destroyed from the last to the first. Disposing of the system object restores the configuration.
    TunDevice mDevice;
    PluginPtr<KEST_SystemPlugin> mSystem;
    std::optional<LinkWatch> mLink;
    std::optional<OwnershipWatch> mOwnership;
    std::optional<wfoal::Subprocess> mCommand;
};

}  // namespace vpnoalctl

#endif
