// SPDX-License-Identifier: Apache-2.0
//
// The tunnel's network device on /dev/net/tun. It exists as long as its owner: when the process ends, however it ends,
// the kernel removes the device. Whoever carries the tunnel's packets reads them from the descriptor and writes them to
// it, one IPv4 or IPv6 packet at a time, without any header.
#ifndef VPNOALCTL_TUNDEVICE_H
#define VPNOALCTL_TUNDEVICE_H

#include <optional>

#include "handles/UniqueFd.h"
#include "profile/Profile.h"

namespace vpnoalctl {

/// The name that the plug-in configures, whatever an agent calls its device.
constexpr char tunnelDeviceName[] = "norvatun0";

class TunDevice {
public:
    /// Makes the device, gives it address, peer and MTU, and sets it up. Throws CommandError, also when a device of
    /// this name exists already; nothing stays then.
    explicit TunDevice(const TunnelSettings& settings);

    /// Blocking and close-on-exec; owned by this object.
    int descriptor() const { return mDescriptor.get(); }

private:
    UniqueFd mDescriptor;
};

/// What the device has: the MTU is its own. Throws CommandError unless it exists, is up, has an IPv4 address, and the
/// address, prefix and peer that are `wanted`. Changes nothing.
TunnelSettings usedDevice(const std::optional<TunnelSettings>& wanted);

/// What the device has; none while it is not there, down, or without an IPv4 address.
struct ReadyDevice {
    unsigned int index = 0;
    TunnelSettings settings;
};
std::optional<ReadyDevice> readyDevice();

}  // namespace vpnoalctl

#endif
