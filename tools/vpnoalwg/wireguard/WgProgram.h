// SPDX-License-Identifier: Apache-2.0
//
// WireGuard as the program that `vpnoalctl run` goes around: the device, and the commands of its configuration.
#ifndef VPNOALWG_WGPROGRAM_H
#define VPNOALWG_WGPROGRAM_H

#include <optional>
#include <string>

#include "config/TunnelPlan.h"
#include "run/TunnelProgram.h"
#include "wireguard/WgDevice.h"

namespace vpnoalwg {

class WgProgram : public vpnoalctl::TunnelProgram {
public:
    /// With `isLeft` an agent that was killed has left the tunnel. The configuration must outlive the object.
    WgProgram(const WgConfig& config, PeerAddresses peers, bool isLeft);

    void start(const vpnoalctl::PhysicalInterface& physical) override;
    bool isStarted() const override { return mIsStarted; }
    /// Any signal says that the network has changed.
    void signal(int number) override;
    void onPathLost() override { signal(0); }
    void end(int, bool) override { mIsEnding = true; }
    bool isEnding() const override { return mIsEnding; }
    std::optional<Clock::time_point> deadline() const override { return mRefreshAt; }
    int descriptor() const override { return mDevice.descriptor(); }
    std::optional<int> check() override;
    void onApplied() override;
    void onEnded() override;

    /// Removes the device, once the configuration is restored. Throws CommandError.
    void remove();

private:
    bool remake(const std::string& reason);
    void refresh() const;
    void refreshWhenDue();

    const WgConfig& mConfig;
    PeerAddresses mPeers;
    bool mIsLeft;
    bool mIsStarted = false;
    bool mIsUp = false;  // PostUp has run
    bool mIsEnding = false;
    unsigned int mMtu = 0;
    Clock::time_point mMadeAt;
    std::optional<Clock::time_point> mRefreshAt;
    std::chrono::milliseconds mPause{0};  // before it
    std::optional<int> mStatus;
    WgDevice mDevice;
};

/// Runs commands at the end: a failure is told, and the others run all the same.
void runLastCommands(const char* key, const std::vector<std::string>& commands);

}  // namespace vpnoalwg

#endif
