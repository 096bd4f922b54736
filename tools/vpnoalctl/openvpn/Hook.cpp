// SPDX-License-Identifier: Apache-2.0
#include "openvpn/Hook.h"

#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <memory>

#include "Application.h"
#include "CommandError.h"
#include "Output.h"
#include "handles/UniqueFd.h"
#include "io/WholeFile.h"
#include "kernel/KernelRoutes.h"
#include "openvpn/AgentClient.h"
#include "tunnel/InstalledState.h"
#include "tunnel/StrictGuard.h"

namespace vpnoalctl {

namespace {

constexpr char description[] =
    "Configures the tunnel of OpenVPN. OpenVPN runs it as its script of 'up', 'route-up' and 'down'; what it is to\n"
    "configure is in the environment that OpenVPN gives it.";
constexpr char footer[] =
    "\nIn OpenVPN's configuration:\n"
    "    config /usr/share/vpnwfoal/openvpn.conf\n"
    "or its lines:\n"
    "    dev norvatun0\n    dev-type tun\n    persist-tun\n    script-security 2\n"
    "    up /usr/lib/vpnwfoal/openvpn-hook\n    route-up /usr/lib/vpnwfoal/openvpn-hook\n"
    "    down /usr/lib/vpnwfoal/openvpn-hook\n"
    "\nExit codes: 0 done; 1 it failed; 2 wrong usage, or a value of OpenVPN that cannot be used; nothing was changed.";

struct HookOptions {
    std::string traffic;
};

void report(const std::string& text)
{
    tell("openvpn-hook: " + text);
}

// Where the configuration goes: to 'vpnoalctl run' when that started OpenVPN, else it is this process's own.
class Target {
public:
    Target()
    {
        const std::string path = inheritedVariable(agentSocketVariable);
        if (!path.empty()) mAgent = std::make_unique<AgentClient>(path);
    }

    // Also when a strict guard is all that is left: it is to stay until the whole configuration is known.
    bool isInstalled() const
    {
        const InstalledState state = installedState();
        if (state.owner != 0) return mAgent && state.owner == mAgent->agent();
        return !state.reason.empty() || hasStrictGuard();
    }

    int apply(const OpenVpnTunnel& tunnel)
    {
        if (!mAgent) return applyHere(tunnel);
        // OpenVPN says in --route-up whether all traffic goes into the tunnel, which is ready only then.
        mAgent->apply(profileText(tunnel), !tunnel.allTraffic.has_value());
        return ExitOk;
    }

    int restore()
    {
        if (!mAgent) return command({"restore"});
        mAgent->restore();
        return ExitOk;
    }

private:
    // As 'vpnoalctl apply -' does it: what is installed stays when this process ends.
    static int applyHere(const OpenVpnTunnel& tunnel)
    {
        letBeside(tunnel);
        const std::string profile = profileText(tunnel);
        const UniqueFd file(memfd_create("profile", MFD_CLOEXEC));
        if (!file.valid()) throw systemError("profile", errno, "free memory");
        const wfoal::Check written = wfoal::writeWhole(file.get(), profile);
        if (!written) throw CommandError("profile", written.reason(), "free memory");
        if (lseek(file.get(), 0, SEEK_SET) != 0 || dup2(file.get(), STDIN_FILENO) < 0) {
            throw systemError("profile", errno, "free descriptors");
        }
        return command({"apply", "-"});
    }

    // The platform's guard lets the server and the bypass networks through.
    static void letBeside(const OpenVpnTunnel& tunnel)
    {
        std::string networks = tunnel.server.value_or("");
        for (const std::string& network : tunnel.bypass)
            networks += (networks.empty() ? "" : ",") + network;
        if (setenv("VKNETCONFIG_BYPASS", networks.c_str(), 1) != 0)
            throw systemError("environment", errno, "free memory");
    }

    static int command(std::vector<std::string> words)
    {
        words.insert(words.begin(), "vpnoalctl");
        std::vector<char*> arguments;
        arguments.reserve(words.size());
        for (std::string& word : words)
            arguments.push_back(word.data());
        return run(static_cast<int>(arguments.size()), arguments.data());
    }

    std::unique_ptr<AgentClient> mAgent;
};

std::optional<OpenVpnTunnel> describedTunnel(const ScriptVariables& variables, const HookOptions& options)
{
    const bool isRestart = variables.valueOf("script_context") == "restart";
    if (isRestart || variables.valueOf("script_type") == "down") return std::nullopt;
    OpenVpnTunnel tunnel = readTunnel(variables);
    if (!options.traffic.empty()) tunnel.allTraffic = options.traffic == "all";
    return tunnel;
}

void reportNotApplied(const OpenVpnTunnel& tunnel)
{
    if (tunnel.notApplied.empty()) return;
    constexpr std::size_t most = 8;
    std::string list;
    for (std::size_t i = 0; i < tunnel.notApplied.size() && i < most; ++i)
        list += (i == 0 ? "" : ", ") + tunnel.notApplied[i];
    if (tunnel.notApplied.size() > most) list += fmt::format(" and {} more", tunnel.notApplied.size() - most);
    report("warning: not applied: " + list);
}

int perform(HookStep step, Target& target, const std::optional<OpenVpnTunnel>& tunnel)
{
    switch (step) {
    case HookStep::Check: report("the earlier configuration stays until OpenVPN has set its routes"); return ExitOk;
    case HookStep::Keep: report("OpenVPN starts again, the configuration stays"); return ExitOk;
    case HookStep::Restore: return target.restore();
    case HookStep::Apply: break;
    }
    reportNotApplied(*tunnel);
    return target.apply(*tunnel);
}

// Without "def1" OpenVPN removes the machine's own default route. Then no interface can be chosen, now or later.
void requireOwnDefaultRoute(const ScriptVariables& variables)
{
    if (variables.valueOf("script_type") != "route-up" || variables.valueOf("redirect_gateway") != "1") return;
    const auto gateway = variables.address("route_net_gateway");
    for (const RouteInfo& route : kernelRoutes()) {
        if (!gateway || (route.isDefaultRoute() && route.gateway.s_addr == gateway->bits)) return;
    }
    throw VariableError("redirect_gateway",
                        "the server's 'redirect-gateway' has no 'def1', and OpenVPN removed the default route; write "
                        "'redirect-gateway def1' into OpenVPN's configuration");
}

int performCall(const ScriptVariables& variables, const HookOptions& options)
{
    try {
        const std::optional<OpenVpnTunnel> tunnel = describedTunnel(variables, options);
        requireOwnDefaultRoute(variables);
        Target target;
        return perform(stepFor(variables, target.isInstalled(), tunnel), target, tunnel);
    } catch (const VariableError& error) {
        report(std::string(error.what()) + "; nothing was changed");
        return ExitUsage;
    } catch (const CommandError& error) {
        report(error.what());
        return error.exitCode();
    } catch (const std::exception& error) {
        report(error.what());
        return ExitFailed;
    }
}

// OpenVPN goes on when its --route-up script fails. A tunnel without its configuration would not keep what it promises.
// OpenVPN ends without a failure then, so the agent has to know.
void endOpenVpn(const ScriptVariables& variables)
{
    const pid_t parent = getppid();
    if (variables.valueOf("daemon_pid") != std::to_string(parent)) return;
    report("ends OpenVPN: the tunnel is not configured");
    try {
        const std::string path = inheritedVariable(agentSocketVariable);
        if (!path.empty()) AgentClient(path).fail();
    } catch (const CommandError& error) {
        report(error.what());
    }
    kill(parent, SIGTERM);
}

int parse(CLI::App& app, HookOptions& options, int argc, char** argv)
{
    app.name("openvpn-hook");
    app.description(description);
    app.footer(footer);
    app.set_version_flag("--version", "openvpn-hook " WFOAL_VERSION);
    app.add_option("--traffic", options.traffic,
                   "What goes into the tunnel, where OpenVPN does not say: 'all', or the 'routes' of the server")
        ->check(CLI::IsMember({"all", "routes"}));
    app.allow_extras();  // OpenVPN's own arguments
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return app.exit(error);
        report(std::string("usage: ") + error.what() + "; see 'openvpn-hook --help'");
        return ExitUsage;
    }
    return -1;
}

}  // namespace

int runHook(int argc, char** argv, const std::vector<std::string>& environment)
{
    CLI::App app;
    HookOptions options;
    if (const int code = parse(app, options, argc, argv); code >= 0) return code;
    const ScriptVariables variables(environment);
    const int code = performCall(variables, options);
    if (code != ExitOk && variables.valueOf("script_type") == "route-up") endOpenVpn(variables);
    return code;
}

}  // namespace vpnoalctl
