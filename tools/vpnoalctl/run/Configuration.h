// SPDX-License-Identifier: Apache-2.0
//
// The tunnel's configuration, as an agent has it that lives as long as its tunnel: applied, applied again when the
// device or the profile is another, and restored at the end. A strict guard ends with restore() only, also one that an
// ended agent has left.
#ifndef VPNOALCTL_CONFIGURATION_H
#define VPNOALCTL_CONFIGURATION_H

#include <optional>

#include "CommandError.h"
#include "PluginLibrary.h"
#include "profile/Profile.h"
#include "tunnel/OwnershipWatch.h"

namespace vpnoalctl {

class Configuration {
public:
    /// The plug-in calls `callbacks`, which must outlive the object.
    Configuration(const PluginLibrary& plugin, KEST_SystemPluginCB& callbacks);
    Configuration(const Configuration&) = delete;
    Configuration& operator=(const Configuration&) = delete;
    /// Restores all but a strict guard, with which the packet filter stays.
    ~Configuration();

    /// Applies a profile that is complete. It replaces the earlier one, and what both have stays installed meanwhile.
    /// Throws CommandError; then the earlier one is installed, or nothing but a strict guard when there was none.
    void apply(const Profile& profile);
    void restore();
    /// Restores all but a strict guard. Throws CommandError without memory; then everything stays.
    void restoreAllButStrictGuard();

    /// What is installed.
    const std::optional<Profile>& installed() const { return mInstalled; }

    /// Becomes readable when it is time to call checkOwnership(); -1 while nothing is installed.
    int ownershipDescriptor() const { return mOwnership ? mOwnership->descriptor() : -1; }
    /// Throws CommandError when another process removed the configuration.
    void checkOwnership() const;

private:
    void newSystem();
    void forgetDefaultRoute();
    void bringUpNow(const Profile& profile);
    [[noreturn]] void refuse(const CommandError& error);

    const PluginLibrary& mPlugin;
    KEST_SystemPluginCB& mCallbacks;
    PluginPtr<KEST_SystemPlugin> mSystem;
    std::optional<Profile> mInstalled;
    std::optional<OwnershipWatch> mOwnership;
};

/// Throws CommandError when a living process has a tunnel's configuration installed, or is about to. Call it only while
/// this process owns none.
void refuseSecondTunnel();

/// Throws CommandError when a tunnel is configured whose owner has ended and whose packets a living process carries, as
/// those of an OpenVPN that runs its hook by itself.
void refuseTunnelInUse();

}  // namespace vpnoalctl

#endif
