// SPDX-License-Identifier: Apache-2.0
//
// A SAMPLE agent, the other end of the sample gateway: see Agent.h and README.md. It speaks TLS 1.0 and 1.1 only, so it
// shows how an agent uses the plug-in, and protects nothing.
#include <CLI/CLI.hpp>

#include "Application.h"
#include "client/Agent.h"

namespace {

struct Options {
    std::string profile;
    std::string gateway;
    sampleclient::AgentOptions agent;
};

int connect(vpnoalctl::Context& context, const Options& options)
{
    const vpnoalctl::Profile profile = vpnoalctl::loadProfile(options.profile);
    vpnoalctl::tunnelToMake(profile, options.profile);
    const sampleclient::GatewaySettings gateway = sampleclient::loadGateway(options.gateway);
    return sampleclient::Agent(context, profile, gateway, options.agent).run();
}

int run(int argc, char** argv)
{
    CLI::App app("Connects to a sample gateway as a VPN agent does. A demonstration: its TLS is out of date.",
                 "sampleclient");
    vpnoalctl::Settings settings;
    settings.hasPlainErrors = true;
    Options options;
    vpnoalctl::addCommonOptions(app, settings);
    app.add_option("profile", options.profile, "The profile, as for 'vpnoalctl connect'")
        ->required()
        ->type_name("PROFILE");
    app.add_option("gateway", options.gateway, "The gateway, a JSON file")->required()->type_name("GATEWAY");
    app.add_option("--exec", options.agent.command,
                   "Run a shell command while connected, then restore and exit with its status")
        ->type_name("COMMAND");
    app.add_flag("--accept-prompt", options.agent.acceptPrompt,
                 "Trust a gateway that the user would be asked about, without asking");
    app.add_option("--give-up", options.agent.giveUpSeconds, "Seconds for which a lost gateway is tried again (300)")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 86400));
    app.footer(
        "\nExit codes: those of vpnoalctl; 4 nobody could be asked whether to trust the gateway; 5 the gateway was\n"
        "refused. With --exec the command's own.");
    const vpnoalctl::Action action = [&options](vpnoalctl::Context& context) { return connect(context, options); };
    return vpnoalctl::runProgram(app, settings, action, argc, argv);
}

}  // namespace

int main(int argc, char** argv)
{
    return vpnoalctl::runMain("sampleclient", run, argc, argv);
}
