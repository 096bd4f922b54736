// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl apply: configures a device that exists already, and leaves the configuration installed. Disposing of a
// system object restores the configuration, so this one is never disposed of. 'vpnoalctl restore' removes the
// configuration.
#include <CLI/CLI.hpp>
#include <memory>

#include "CommandError.h"
#include "Context.h"
#include "commands/Commands.h"
#include "run/OuterRoutes.h"
#include "tunnel/BringUp.h"
#include "tunnel/InstalledState.h"
#include "tunnel/Signals.h"
#include "tunnel/StderrCallbacks.h"
#include "tunnel/StrictGuard.h"
#include "tunnel/TunDevice.h"

namespace vpnoalctl {

namespace {

// The configuration of another process was neither replaced nor removed.
void refuseForOwner()
{
    const InstalledState left = installedState();
    if (left.owner == 0) return;
    throw CommandError(tunnelDeviceName, "cannot be configured: " + left.reason,
                       "end that process, or remove the configuration with 'vpnoalctl restore --force'");
}

void restoreBesideStrictGuard(KEST_SystemPlugin& system)
{
    const KeptStrictGuard kept(KeptTunnel::Part::Guard);
    system.RestoreSystemConfiguration();
}

void bringUpOrRestore(KEST_SystemPlugin& system, const Profile& profile, Signals& signals)
{
    try {
        const GuardedBypass guarded(profile.outside);
        bringUp(system, profile);
        verifyFilter(profile);
    } catch (...) {
        restoreBesideStrictGuard(system);
        refuseForOwner();
        refuseBesideStrictGuard();
        throw;
    }
    if (!signals.isInterrupted()) return;
    system.RestoreSystemConfiguration();
    throw CommandError("apply", "interrupted, everything is restored", "run it again");
}

int applyProfile(Context& context, const std::string& file)
{
    const Profile wanted = loadProfile(file);
    Signals signals;
    PluginLibrary& plugin = context.plugin();
    const Profile profile = completedFor(usedDevice(wanted.tunnel), wanted);
    // Static, because the system object that calls it is never disposed of.
    static auto* const callbacks = new StderrCallbacks(context.settings.verbosity > 0);
    auto& system = plugin.createKept<KEST_SystemPlugin>();
    system.SetSystemPluginCB(callbacks);
    bringUpOrRestore(system, profile, signals);
    printSummary(context.output, profile, "applied");
    context.output.line("It stays installed; 'vpnoalctl restore' removes it.", Style::Faint);
    return ExitOk;
}

}  // namespace

Action defineApply(CLI::App& command)
{
    auto file = std::make_shared<std::string>();
    command.add_option("profile", *file, "The profile, a name or a JSON file; '-' is standard input")
        ->required()
        ->type_name("PROFILE");
    return [file](Context& context) { return applyProfile(context, *file); };
}

}  // namespace vpnoalctl
