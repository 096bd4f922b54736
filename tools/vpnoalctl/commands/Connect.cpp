// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl connect: with a gateway in the profile a whole connection, see connect/Agent.h. Without one all but its
// packets: makes the device, applies the profile, holds it until it is told to end, restores. However it ends, short of
// SIGKILL, the configuration is restored; after a SIGKILL the device goes with the process, and the platform library's
// journal lets the next run clean up the rest.
#include <fmt/format.h>
#include <poll.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <memory>
#include <optional>

#include "CommandError.h"
#include "Context.h"
#include "commands/Commands.h"
#include "connect/Agent.h"
#include "tunnel/BringUp.h"
#include "tunnel/ChildCommand.h"
#include "tunnel/LinkWatch.h"
#include "tunnel/OwnershipWatch.h"
#include "tunnel/Signals.h"
#include "tunnel/StderrCallbacks.h"
#include "tunnel/TunDevice.h"

namespace vpnoalctl {

namespace {

struct Options {
    std::string profile;
    AgentOptions agent;
};

// Sleeps until a signal comes; throws when the device disappears meanwhile, or the configuration is taken away.
void waitForSignal(const Signals& signals, const LinkWatch& link, const OwnershipWatch& ownership)
{
    pollfd watched[] = {
        {signals.descriptor(), POLLIN, 0}, {link.descriptor(), POLLIN, 0}, {ownership.descriptor(), POLLIN, 0}};
    poll(watched, 3, -1);
    ownership.check();
    if (link.isGone()) {
        throw CommandError(tunnelDeviceName, "somebody removed the interface, everything is restored",
                           "connect again when it is wanted");
    }
}

int waitUntilEnd(Signals& signals, const TunDevice& device, const std::string& text)
{
    const LinkWatch link(tunnelDeviceName);
    const OwnershipWatch ownership;
    std::optional<ChildCommand> child;
    if (!text.empty()) {
        // What the command needs to carry the tunnel's packets.
        setenv("WFOAL_TUN_FD", std::to_string(device.descriptor()).c_str(), 1);
        child.emplace(text, device.descriptor());
    }
    while (!signals.isInterrupted()) {
        if (child && child->status()) return *child->status();
        waitForSignal(signals, link, ownership);
    }
    return child ? child->end() : ExitOk;
}

int holdTunnel(Context& context, const Profile& profile, const std::string& command)
{
    Signals signals;
    PluginLibrary& plugin = context.plugin();
    const TunDevice device(profile.tunnel);
    StderrCallbacks callbacks(context.settings.verbosity > 0);
    // Disposing of the object at the end of this scope restores the configuration.
    const auto system = plugin.create<KEST_SystemPlugin>();
    system->SetSystemPluginCB(&callbacks);
    bringUp(*system, profile);
    verifyFilter(profile);
    printSummary(context.output, profile, "connected");
    if (command.empty()) context.output.line("Ctrl-C ends it.", Style::Faint);
    if (!context.output.flush()) context.explain("nobody reads the output");
    return waitUntilEnd(signals, device, command);
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
