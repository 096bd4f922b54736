// SPDX-License-Identifier: Apache-2.0
#include "tunnel/HeldTunnel.h"

#include <system_error>
#include <vector>

#include "CommandError.h"
#include "tunnel/BringUp.h"
#include "tunnel/StrictGuard.h"

namespace vpnoalctl {

namespace {

int exitStatus(const wfoal::SubprocessResult& result)
{
    using Outcome = wfoal::SubprocessResult::Outcome;
    switch (result.outcome) {
    case Outcome::Exited: return result.code;
    case Outcome::Killed: return 128 + result.code;
    default: return ExitFailed;
    }
}

}  // namespace

HeldTunnel::HeldTunnel(const PluginLibrary& plugin, const Profile& profile, KEST_SystemPluginCB& callbacks)
    : mDevice(profile.tunnel.value()), mSystem(plugin.create<KEST_SystemPlugin>())
{
    mSystem->SetSystemPluginCB(&callbacks);
    try {
        bringUp(*mSystem, profile);
        verifyFilter(profile);
    } catch (...) {
        disposeBesideStrictGuard(mSystem, KeptTunnel::Part::Guard);
        refuseBesideStrictGuard();
        throw;
    }
    mLink.emplace(tunnelDeviceName);
    mOwnership.emplace();
}

void HeldTunnel::start(const std::string& command, int inherited)
{
    constexpr char shell[] = "/bin/sh";
    try {
        mCommand.emplace(std::vector<std::string>{shell, "-c", command}, wfoal::Subprocess::Sharing::All,
                         wfoal::Subprocess::Files{-1, -1, inherited});
    } catch (const std::system_error& error) {
        throw systemError(shell, error.code().value(), "it is needed to run the command");
    }
}

std::optional<int> HeldTunnel::check()
{
    if (mCommand) {
        if (const auto& ended = mCommand->wait(std::chrono::milliseconds(0))) return exitStatus(*ended);
    }
    if (mLink->isGone()) {
        throw CommandError(tunnelDeviceName, "somebody removed the interface, everything is restored",
                           "connect again when it is wanted");
    }
    mOwnership->check();
    return std::nullopt;
}

int HeldTunnel::endCommand()
{
    return mCommand ? exitStatus(mCommand->end()) : ExitOk;
}

}  // namespace vpnoalctl
