// SPDX-License-Identifier: Apache-2.0
#include "wireguard/WgProgram.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "CommandError.h"
#include "Output.h"
#include "handles/UniqueFd.h"
#include "wireguard/Tools.h"

namespace vpnoalwg {

namespace {

// What WireGuard, UDP and IPv6 add to a packet.
constexpr unsigned int overhead = 80;
constexpr unsigned int ethernet = 1500;

unsigned int mtuOf(const vpnoalctl::PhysicalInterface& physical)
{
    ifreq request{};
    physical.name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const bool isKnown = !physical.name.empty() && ioctl(socket.get(), SIOCGIFMTU, &request) == 0;
    constexpr unsigned int least = 576 + overhead;
    return std::clamp(isKnown ? static_cast<unsigned int>(request.ifr_mtu) : ethernet, least, 65535U) - overhead;
}

}  // namespace

void runLastCommands(const char* key, const std::vector<std::string>& commands)
{
    for (const std::string& command : commands) {
        try {
            runCommands(key, {command});
        } catch (const vpnoalctl::CommandError& error) {
            vpnoalctl::tell(std::string("vpnoal-wg: ") + error.what());
        }
    }
}

WgProgram::WgProgram(const WgConfig& config, PeerAddresses peers, bool isLeft)
    : mConfig(config), mPeers(std::move(peers)), mIsLeft(isLeft)
{
}

void WgProgram::start(const vpnoalctl::PhysicalInterface& physical)
{
    // What PostUp of the killed agent did.
    if (mIsLeft) {
        runLastCommands("PreDown", mConfig.preDown);
        runLastCommands("PostDown", mConfig.postDown);
    }
    runCommands("PreUp", mConfig.preUp);
    mMtu = mConfig.mtu.value_or(mtuOf(physical));
    mDevice.make(mConfig, mPeers, mMtu, mIsLeft);
    mMadeAt = Clock::now();
    mIsStarted = true;
}

// A packet that was on its way meanwhile has WireGuard go back to the earlier network, also when that has just gone. So
// it is told again, at growing intervals.
void WgProgram::signal(int)
{
    refresh();
    mPause = std::chrono::milliseconds(250);
    mRefreshAt = Clock::now() + mPause;
}

void WgProgram::refreshWhenDue()
{
    constexpr std::chrono::seconds longest{8};
    if (!mRefreshAt || Clock::now() < *mRefreshAt) return;
    refresh();
    mPause *= 2;
    mRefreshAt.reset();
    if (mPause <= longest) mRefreshAt = Clock::now() + mPause;
}

void WgProgram::refresh() const
{
    try {
        mDevice.refresh(mConfig, mPeers);
    } catch (const vpnoalctl::CommandError& error) {
        vpnoalctl::tell(std::string("vpnoal-wg: ") + error.what());
    }
}

std::optional<int> WgProgram::check()
{
    if (mStatus) return mStatus;
    if (mIsEnding) {
        mStatus = vpnoalctl::ExitOk;
    } else if (const auto reason = mDevice.whyGone()) {
        if (!remake(*reason)) mStatus = vpnoalctl::ExitFailed;
    } else {
        refreshWhenDue();
    }
    return mStatus;
}

// Makes the device anew, while the rest of the configuration stays. What its commands did with the device is lost, so
// with commands the tunnel ends, as it does when the new one would be gone as soon.
bool WgProgram::remake(const std::string& reason)
{
    constexpr std::chrono::seconds least{1};
    const bool hasCommands = !mConfig.preUp.empty() || !mConfig.postUp.empty();
    const bool isLasting = mIsUp && Clock::now() - mMadeAt >= least;
    if (!mDevice.isProgramGone() || hasCommands || !isLasting) {
        vpnoalctl::tell("vpnoal-wg: norvatun0: " + reason + ", the tunnel ends");
        return false;
    }
    vpnoalctl::tell("vpnoal-wg: norvatun0: " + reason + ", the device is made anew");
    try {
        mDevice.make(mConfig, mPeers, mMtu, false);
        mMadeAt = Clock::now();
        return true;
    } catch (const vpnoalctl::CommandError& error) {
        vpnoalctl::tell(std::string("vpnoal-wg: ") + error.what());
        return false;
    }
}

void WgProgram::onApplied()
{
    runCommands("PostUp", mConfig.postUp);
    mIsUp = true;
}

void WgProgram::onEnded()
{
    if (mIsUp) runLastCommands("PreDown", mConfig.preDown);
}

void WgProgram::remove()
{
    mDevice.remove();
    if (std::exchange(mIsUp, false)) runLastCommands("PostDown", mConfig.postDown);
}

}  // namespace vpnoalwg
