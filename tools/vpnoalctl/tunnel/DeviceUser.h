// SPDX-License-Identifier: Apache-2.0
//
// The process that carries the packets of the tunnel's device: the one that has it open. The owner of the configuration
// may be another one, or have ended.
#ifndef VPNOALCTL_DEVICEUSER_H
#define VPNOALCTL_DEVICEUSER_H

#include <sys/types.h>

#include <optional>
#include <string>

#include "CommandError.h"

namespace vpnoalctl {

struct DeviceUser {
    pid_t process = 0;
    std::string name;  ///< of its program, as ps shows it
};

/// Looks through the processes of this network namespace, as far as this one may. None also for a device of the kernel
/// itself.
std::optional<DeviceUser> deviceUser();

/// What is said when the device is in use already.
CommandError deviceIsUsed(const DeviceUser& user);

}  // namespace vpnoalctl

#endif
