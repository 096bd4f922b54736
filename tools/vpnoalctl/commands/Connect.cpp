// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl connect: with a gateway in the profile a whole connection, see connect/Agent.h. Without one it carries no
// packets: it makes the device, installs the configuration, holds both until a signal or the command's end, and
// restores. After a SIGKILL the kernel removes the device, and the next run removes the rest by the undo log.
#include <poll.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <memory>
#include <string>

#include "CommandError.h"
#include "Context.h"
#include "commands/Commands.h"
#include "connect/Agent.h"
#include "tunnel/BringUp.h"
#include "tunnel/HeldTunnel.h"
#include "tunnel/Signals.h"
#include "tunnel/StderrCallbacks.h"

namespace vpnoalctl {

namespace {

struct Options {
    std::string profile;
    AgentOptions agent;
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

int holdTunnel(Context& context, const Profile& profile, const std::string& command)
{
    Signals signals;
    PluginLibrary& plugin = context.plugin();
    StderrCallbacks callbacks(context.settings.verbosity > 0);
    HeldTunnel tunnel(plugin, profile, callbacks);
    printSummary(context.output, profile, "connected");
    if (command.empty()) context.output.line("Ctrl-C ends it.", Style::Faint);
    if (!context.output.flush()) context.explain("nobody reads the output");
    if (!command.empty()) {
        // The command carries the tunnel's packets through this descriptor.
        setenv("WFOAL_TUN_FD", std::to_string(tunnel.device()).c_str(), 1);
        tunnel.start(command, tunnel.device());
    }
    return waitUntilEnd(signals, tunnel);
}

int connect(Context& context, const Options& options)
{
    const Profile profile = loadProfile(options.profile);
    if (!profile.gateway && options.agent.acceptPrompt) {
        throw badInput("--accept-prompt", "the profile has no gateway", "leave it out, or name one");
    }
    if (!profile.gateway) return holdTunnel(context, profile, options.agent.command);
    return Agent(context, profile, options.agent).run();
}

}  // namespace

Action defineConnect(CLI::App& command)
{
    auto options = std::make_shared<Options>();
    command.add_option("profile", options->profile, "The profile, a JSON file; '-' is standard input")
        ->required()
        ->type_name("PROFILE");
    command
        .add_option("--exec", options->agent.command,
                    "Run a shell command while connected, then restore and exit with its status; without a gateway it "
                    "finds the tunnel's descriptor in $WFOAL_TUN_FD")
        ->type_name("COMMAND");
    command.add_flag("--accept-prompt", options->agent.acceptPrompt,
                     "Trust a gateway that the user would be asked about, without asking");
    command
        .add_option("--give-up", options->agent.giveUpSeconds, "Seconds for which a lost gateway is tried again (300)")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 86400));
    command.footer(
        "\nExit codes: 0 done; 1 the operation failed; 2 wrong usage or bad input, nothing was changed;\n"
        "3 the plug-in could not be loaded; 4 nobody could be asked whether to trust the gateway;\n"
        "5 the gateway was refused. With --exec the command's own.");
    return [options](Context& context) { return connect(context, *options); };
}

}  // namespace vpnoalctl
