// SPDX-License-Identifier: Apache-2.0
//
// vpnoal-wg: tunnels of WireGuard through the plug-in, from the configurations of wg-quick(8).
#include <CLI/CLI.hpp>
#include <optional>
#include <string>

#include "Application.h"
#include "agent/Agent.h"

namespace {

constexpr char description[] =
    "Brings up tunnels of WireGuard through the VPN plug-in, from the configurations of wg-quick. The device is "
    "norvatun0.";
constexpr char footer[] =
    "\nNAME is /etc/wireguard/NAME.conf, or a file NAME.conf. Exit codes: 0 done; 1 the operation failed, everything "
    "is\n"
    "restored but a strict guard; 2 wrong usage or bad input, nothing was changed; 3 the plug-in could not be loaded.";

const struct {
    const char* name;
    const char* summary;
    int (*run)(vpnoalctl::Context& context, const std::string& nameOrFile);
} commands[] = {
    {"up", "Bring a tunnel up; the agent goes on in the background", vpnoalwg::bringUpTunnel},
    {"down", "Take a tunnel down, or remove what an agent has left", vpnoalwg::takeTunnelDown},
    {"run", "Bring a tunnel up and hold it in the foreground, until Ctrl-C", vpnoalwg::runAgent},
};

int run(int argc, char** argv)
{
    CLI::App app(description, "vpnoal-wg");
    app.footer(footer);
    app.set_version_flag("--version", "vpnoal-wg " WFOAL_VERSION);
    vpnoalctl::Settings settings;
    std::optional<vpnoalctl::Action> chosen;
    std::string nameOrFile;
    vpnoalctl::addCommonOptions(app, settings);
    app.require_subcommand(1);
    for (const auto& command : commands) {
        CLI::App* options = app.add_subcommand(command.name, command.summary);
        options->fallthrough();
        options->add_option("configuration", nameOrFile, "The configuration, a name or a file")
            ->required()
            ->type_name("NAME");
        options->callback([&chosen, &nameOrFile, run = command.run] {
            chosen = [&nameOrFile, run](vpnoalctl::Context& context) { return run(context, nameOrFile); };
        });
    }
    return vpnoalctl::runProgram(app, settings, chosen, argc, argv);
}

}  // namespace

int main(int argc, char** argv)
{
    return vpnoalctl::runMain("vpnoal-wg", run, argc, argv);
}
