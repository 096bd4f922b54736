// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl connect: makes the device, installs the configuration, holds both until a signal or the command's end, and
// restores. It carries no packets. After a SIGKILL the kernel removes the device, and the next run removes the rest by
// the undo log.
#include <poll.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <memory>
#include <string>

#include "Context.h"
#include "commands/Commands.h"
#include "run/OuterRoutes.h"
#include "tunnel/BringUp.h"
#include "tunnel/HeldTunnel.h"
#include "tunnel/Signals.h"
#include "tunnel/StderrCallbacks.h"

namespace vpnoalctl {

namespace {

struct Options {
    std::string profile;
    std::string command;
};

int waitUntilEnd(Signals& signals, HeldTunnel& tunnel)
{
    while (!signals.isInterrupted()) {
        if (const auto status = tunnel.check()) return *status;
        pollfd watched[] = {{signals.descriptor(), POLLIN, 0},
                            {tunnel.linkDescriptor(), POLLIN, 0},
                            {tunnel.ownershipDescriptor(), POLLIN, 0}};
        poll(watched, 3, -1);
    }
    return tunnel.endCommand();
}

int connect(Context& context, const Options& options)
{
    const Profile profile = loadProfile(options.profile);
    tunnelToMake(profile, options.profile);
    Signals signals;
    PluginLibrary& plugin = context.plugin();
    StderrCallbacks callbacks(context.settings.verbosity > 0);
    const GuardedBypass guarded(profile.outside);
    HeldTunnel tunnel(plugin, profile, callbacks);
    printSummary(context.output, profile, "connected");
    if (options.command.empty()) context.output.line("Ctrl-C ends it.", Style::Faint);
    if (!context.output.flush()) context.explain("nobody reads the output");
    if (!options.command.empty()) {
        // The command carries the tunnel's packets through this descriptor.
        setenv("WFOAL_TUN_FD", std::to_string(tunnel.device()).c_str(), 1);
        tunnel.start(options.command, tunnel.device());
    }
    return waitUntilEnd(signals, tunnel);
}

}  // namespace

Action defineConnect(CLI::App& command)
{
    auto options = std::make_shared<Options>();
    command.add_option("profile", options->profile, "The profile, a name or a JSON file; '-' is standard input")
        ->required()
        ->type_name("PROFILE");
    command
        .add_option("--exec", options->command,
                    "Run a shell command while connected, then restore and exit with its status; it finds the tunnel's "
                    "descriptor in $WFOAL_TUN_FD")
        ->type_name("COMMAND");
    command.footer(
        "\nExit codes: 0 done; 1 the operation failed; 2 wrong usage or bad input, nothing was changed;\n"
        "3 the plug-in could not be loaded. With --exec the command's own.");
    return [options](Context& context) { return connect(context, *options); };
}

}  // namespace vpnoalctl
