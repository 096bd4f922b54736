// SPDX-License-Identifier: Apache-2.0
#include "agent/Agent.h"

#include <fmt/format.h>
#include <net/if.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <exception>

#include "CommandError.h"
#include "Output.h"
#include "agent/AgentLock.h"
#include "agent/Background.h"
#include "config/ConfigFile.h"
#include "run/Configuration.h"
#include "run/Runner.h"
#include "settings/PlatformSettings.h"
#include "tunnel/DeviceUser.h"
#include "tunnel/InstalledState.h"
#include "tunnel/StrictGuard.h"
#include "tunnel/TunDevice.h"
#include "wireguard/PeerLookup.h"
#include "wireguard/WgProgram.h"

namespace vpnoalwg {

namespace {

using vpnoalctl::CommandError;
using vpnoalctl::Context;
using vpnoalctl::tunnelDeviceName;

void warn(const std::string& text)
{
    vpnoalctl::tell("vpnoal-wg: warning: " + text);
}

void warnAbout(const ConfigFile& file)
{
    for (const std::string& warning : file.warnings)
        warn(warning);
    const auto settings = wfoal::readPlatformSettings(wfoal::platformSettingsPath);
    for (const std::string& warning : warningsFor(file.config, settings && settings->hasIpv6Guard))
        warn(warning);
}

void refuseWhileUp(const AgentState& state)
{
    if (state.kind != AgentState::Kind::Running) return;
    throw CommandError(tunnelDeviceName,
                       fmt::format("is up already, by process {} with {}", state.process, state.configuration),
                       fmt::format("'vpnoal-wg down {}' ends it", state.configuration));
}

// A killed agent leaves its wireguard-go. Any other program has made the device for itself.
void refuseForeignDevice(const AgentState& state)
{
    const auto user = vpnoalctl::deviceUser();
    if (!user || (state.kind == AgentState::Kind::Left && user->name == "wireguard-go")) return;
    throw CommandError(vpnoalctl::deviceIsUsed(*user));
}

// The lock keeps its text while something is left to be removed. A device that is still there, and that no killed agent
// left, is another program's: this one has removed its own.
void releaseWhenGone(AgentLock& lock, const AgentState& before, const std::string& path)
{
    if (vpnoalctl::hasStrictGuard()) return lock.leaveGuard(path);
    const bool isDeviceGone = before.kind == AgentState::Kind::None || if_nametoindex(tunnelDeviceName) == 0;
    if (isDeviceGone && vpnoalctl::installedState().reason.empty()) lock.release();
}

void end(pid_t process)
{
    constexpr int longest = 120 * 1000;  // milliseconds: PreDown and PostDown have 90 seconds each
    const UniqueFd ended(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
    if (!ended.valid() && errno == ESRCH) return;
    if (!ended.valid()) throw vpnoalctl::systemError(fmt::format("process {}", process), errno, "try again");
    if (syscall(SYS_pidfd_send_signal, ended.get(), SIGTERM, nullptr, 0) != 0 && errno != ESRCH) {
        throw vpnoalctl::systemError(fmt::format("process {}", process), errno, "run it as root");
    }
    pollfd watched{ended.get(), POLLIN, 0};
    if (poll(&watched, 1, longest) > 0) return;
    throw CommandError(fmt::format("process {}", process), "has not ended within 120 seconds",
                       fmt::format("'kill -KILL {}', and then this command again", process));
}

void restoreConfiguration(Context& context)
{
    // Kept: disposing of it would only restore a second time.
    context.plugin().createKept<KEST_SystemPlugin>().RestoreSystemConfiguration();
    if (const auto left = vpnoalctl::installedState(); !left.reason.empty()) {
        throw CommandError("restore", "the configuration is not removed: " + left.reason,
                           "the log names the reason; 'vpnoalctl restore' tries again");
    }
}

// What an agent has left that ended by itself: its commands have run, and its device is gone.
void removeGuard(Context& context, AgentLock& lock, const std::string& path)
{
    lock.take(path);
    restoreConfiguration(context);
    lock.release();
}

// A killed agent's tunnel. Its commands are those that the file has now.
void removeStale(Context& context, AgentLock& lock, const std::string& path)
{
    refuseForeignDevice(lock.state());
    lock.take(path);
    WgConfig config;
    try {
        config = readConfigFile(path).config;
    } catch (const CommandError& error) {
        warn(std::string(error.what()) + "; its PreDown and PostDown do not run");
    }
    runLastCommands("PreDown", config.preDown);
    restoreConfiguration(context);
    WgDevice::removeStale();
    runLastCommands("PostDown", config.postDown);
    lock.release();
}

}  // namespace

int runAgent(Context& context, const std::string& nameOrFile)
{
    const ConfigFile file = readConfigFile(nameOrFile);
    AgentLock lock;
    const AgentState before = lock.state();
    refuseWhileUp(before);
    vpnoalctl::refuseSecondTunnel();
    refuseForeignDevice(before);
    warnAbout(file);
    const PeerAddresses peers = lookUpPeers(file.config);
    vpnoalctl::Profile profile = profileOf(file.config);
    profile.outside = serversOf(peers);
    WgProgram program(file.config, peers, before.kind == AgentState::Kind::Left);
    vpnoalctl::RunOptions options;
    options.program = "vpnoal-wg";
    options.what = file.path;
    options.changeSignal = SIGUSR1;
    vpnoalctl::Runner runner(context, options, std::move(profile), program);
    lock.take(file.path);
    try {
        const int status = runner.run();
        program.remove();
        releaseWhenGone(lock, before, file.path);
        return status;
    } catch (const CommandError&) {
        program.remove();
        releaseWhenGone(lock, before, file.path);
        throw;
    }
}

int bringUpTunnel(Context& context, const std::string& nameOrFile)
{
    const ConfigFile file = readConfigFile(nameOrFile);
    const AgentLock lock;
    refuseWhileUp(lock.state());
    std::vector<std::string> arguments = {"vpnoal-wg", "run", file.path};
    if (!context.settings.pluginPath.empty()) arguments.push_back("--plugin=" + context.settings.pluginPath);
    const auto verbosity = static_cast<std::size_t>(context.settings.verbosity);
    if (verbosity > 0) arguments.push_back("-" + std::string(verbosity, 'v'));
    return startInBackground(std::move(arguments), lock.logPath());
}

int takeTunnelDown(Context& context, const std::string& nameOrFile)
{
    const std::string path = resolvedPathOf(nameOrFile);
    AgentLock lock;
    const AgentState before = lock.state();
    if (before.kind == AgentState::Kind::None) {
        throw CommandError(tunnelDeviceName, "no vpnoal-wg has brought it up",
                           "'vpnoalctl status' shows what is there");
    }
    if (before.configuration != path) {
        throw CommandError(path, fmt::format("is not up; {} is up with {}", tunnelDeviceName, before.configuration),
                           fmt::format("'vpnoal-wg down {}' ends that one", before.configuration));
    }
    if (before.kind == AgentState::Kind::Running) end(before.process);
    const AgentState::Kind left = lock.state().kind;
    if (left == AgentState::Kind::Left) removeStale(context, lock, path);
    if (left == AgentState::Kind::Guarded) removeGuard(context, lock, path);
    return vpnoalctl::ExitOk;
}

}  // namespace vpnoalwg
