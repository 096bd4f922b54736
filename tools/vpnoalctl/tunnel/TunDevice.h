// SPDX-License-Identifier: Apache-2.0
//
// The tunnel's network device on /dev/net/tun. It exists as long as its owner: when the process ends, however it ends,
// the kernel removes the device. Whoever carries the tunnel's packets reads them from the descriptor and writes them to
// it, one IPv4 or IPv6 packet at a time, without any header.
#ifndef VPNOALCTL_TUNDEVICE_H
#define VPNOALCTL_TUNDEVICE_H

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

/// Throws CommandError unless the device exists, is up and carries what `settings` say. Changes nothing.
void checkDevice(const TunnelSettings& settings);

/// The device's own MTU. Throws CommandError.
unsigned int deviceMtu();

}  // namespace vpnoalctl

#endif
