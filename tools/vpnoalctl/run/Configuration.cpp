// SPDX-License-Identifier: Apache-2.0
#include "run/Configuration.h"

#include <algorithm>

#include "tunnel/BringUp.h"
#include "tunnel/DeviceUser.h"
#include "tunnel/InstalledState.h"
#include "tunnel/KeptTunnel.h"
#include "tunnel/StrictGuard.h"
#include "tunnel/TunDevice.h"

namespace vpnoalctl {

namespace {

constexpr char seeLog[] = "the log names the key at fault; 'vpnoalctl doctor' shows what is missing";

// The plug-in takes a route to 0.0.0.0, whatever its netmask, for one that has all traffic in the tunnel, and keeps to
// it until it restores.
bool takesAllTraffic(const Profile& profile)
{
    return std::any_of(profile.routes.begin(), profile.routes.end(),
                       [](const ProfileRoute& route) { return route.destination.address.bits == 0; });
}

}  // namespace

Configuration::Configuration(const PluginLibrary& plugin, KEST_SystemPluginCB& callbacks)
    : mPlugin(plugin), mCallbacks(callbacks)
{
    newSystem();
}

Configuration::~Configuration()
{
    disposeBesideStrictGuard(mSystem, KeptTunnel::Part::GuardAndFilter);
}

// A request that failed is collected still, and would be sent again: another object has collected nothing. Disposing of
// the earlier one restores, and what is installed is to stay.
void Configuration::newSystem()
{
    const KeptTunnel kept;
    mSystem = mPlugin.create<KEST_SystemPlugin>();
    mSystem->SetSystemPluginCB(&mCallbacks);
}

// What is installed stays, for the profile that replaces it.
void Configuration::forgetDefaultRoute()
{
    const KeptTunnel kept;
    mSystem->RestoreSystemConfiguration();
}

void Configuration::apply(const Profile& profile)
{
    try {
        if (mInstalled && takesAllTraffic(*mInstalled) && !takesAllTraffic(profile)) forgetDefaultRoute();
        bringUpNow(profile);
        mInstalled = profile;
    } catch (const CommandError& error) {
        refuse(error);
    }
}

void Configuration::bringUpNow(const Profile& profile)
{
    bringUp(*mSystem, profile);
    verifyFilter(profile);
    mOwnership.emplace();
}

// The packet filter is replaced before the rest is refused, so the earlier profile is applied as a whole.
void Configuration::refuse(const CommandError& error)
{
    newSystem();
    if (!mInstalled) {
        restoreAllButStrictGuard();
        refuseSecondTunnel();
        refuseBesideStrictGuard();
        throw CommandError(error);
    }
    try {
        bringUpNow(*mInstalled);
    } catch (const CommandError&) {
        restoreAllButStrictGuard();
        throw CommandError("apply", "the platform refused the configuration, and the earlier one too", seeLog);
    }
    throw CommandError("apply", "the platform refused the configuration, the earlier one stays", seeLog);
}

void Configuration::restore()
{
    mOwnership.reset();
    mInstalled.reset();
    mSystem->RestoreSystemConfiguration();
}

void Configuration::restoreAllButStrictGuard()
{
    const KeptStrictGuard kept(KeptTunnel::Part::Guard);
    restore();
}

void Configuration::checkOwnership() const
{
    if (mOwnership) mOwnership->check();
}

void refuseSecondTunnel()
{
    const InstalledState left = installedState();
    if (left.owner == 0) return;
    throw CommandError(tunnelDeviceName, "cannot be configured: " + left.reason,
                       "end that process, or remove the configuration with 'vpnoalctl restore --force'");
}

void refuseTunnelInUse()
{
    const InstalledState left = installedState();
    if (left.reason.empty() || left.owner != 0) return;
    if (const auto user = deviceUser()) throw CommandError(deviceIsUsed(*user));
}

}  // namespace vpnoalctl
