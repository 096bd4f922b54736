// SPDX-License-Identifier: Apache-2.0
//
// The tunnel's device: the kernel's own WireGuard, or wireguard-go where the kernel has none. It outlives a process
// that is killed; the next one goes on with it, so that no packet leaves beside the tunnel meanwhile.
#ifndef VPNOALWG_WGDEVICE_H
#define VPNOALWG_WGDEVICE_H

#include <optional>
#include <string>

#include "config/TunnelPlan.h"
#include "process/Subprocess.h"

namespace vpnoalwg {

class WgDevice {
public:
    WgDevice() = default;
    WgDevice(const WgDevice&) = delete;
    WgDevice& operator=(const WgDevice&) = delete;
    /// Removes the device.
    ~WgDevice();

    /// Makes the device and sets it up with keys, peers, addresses and MTU. With `isLeft` a device that is there
    /// already is one that an ended process made, and is taken. Throws CommandError; nothing stays then.
    void make(const WgConfig& config, const PeerAddresses& peers, unsigned int mtu, bool isLeft);
    /// Has WireGuard send from another address when the network is another: it keeps to the one that it has used.
    /// Throws CommandError.
    void refresh(const WgConfig& config, const PeerAddresses& peers) const;
    /// Removes the device. Throws CommandError when it stays.
    void remove();
    /// Removes a device that an ended process left.
    static void removeStale();

    /// Readable when wireguard-go has ended; -1 where it is not ours to wait for.
    int descriptor() const { return mProgram ? mProgram->descriptor() : -1; }
    /// Why the device is gone; none while it is there.
    std::optional<std::string> whyGone();
    /// After whyGone(): whether wireguard-go failed, and nobody removed the device.
    bool isProgramGone() const { return mIsProgramGone; }

private:
    void create();
    void startProgram();
    void awaitProgram();

    unsigned int mIndex = 0;  // 0: there is none
    bool mIsProgramGone = false;
    std::optional<wfoal::Subprocess> mProgram;
};

}  // namespace vpnoalwg

#endif
