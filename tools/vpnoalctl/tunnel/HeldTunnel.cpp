// SPDX-License-Identifier: Apache-2.0
#include "tunnel/HeldTunnel.h"

#include <utility>

#include "CommandError.h"
#include "tunnel/BringUp.h"

namespace vpnoalctl {

HeldTunnel::HeldTunnel(const PluginLibrary& plugin, const Profile& profile, KEST_SystemPluginCB& callbacks,
                       RestoreReport report)
    : mDevice(profile.tunnel), mSystem(plugin.create<KEST_SystemPlugin>()), mReport(std::move(report))
{
    mSystem->SetSystemPluginCB(&callbacks);
    bringUp(*mSystem, profile);
    verifyFilter(profile);
    mLink.emplace(tunnelDeviceName);
    mOwnership.emplace();
}

HeldTunnel::~HeldTunnel()
{
    mCommand.reset();
    // Disposing of the object restores the configuration.
    const auto restore = [this] { mSystem.reset(); };
    if (mReport) mReport(restore);
}

void HeldTunnel::start(const std::string& command, int inherited)
{
    mCommand.emplace(command, inherited);
}

std::optional<int> HeldTunnel::check()
{
    if (mCommand && mCommand->status()) return mCommand->status();
    if (mLink->isGone()) {
        throw CommandError(tunnelDeviceName, "somebody removed the interface, everything is restored",
                           "connect again when it is wanted");
    }
    mOwnership->check();
    return std::nullopt;
}

int HeldTunnel::endCommand()
{
    return mCommand ? mCommand->end() : ExitOk;
}

}  // namespace vpnoalctl
