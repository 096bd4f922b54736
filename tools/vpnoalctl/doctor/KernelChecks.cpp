// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/capability.h>
#include <linux/if_tun.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "doctor/Checks.h"
#include "handles/Ioctl.h"
#include "handles/UniqueFd.h"
#include "tunnel/FilterState.h"

namespace vpnoalctl {

namespace {

bool hasCapability(int capability)
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) != 0) return false;
    return (data[CAP_TO_INDEX(capability)].effective & CAP_TO_MASK(capability)) != 0;
}

}  // namespace

Finding checkPrivileges(Context&)
{
    if (hasCapability(CAP_NET_ADMIN)) return {Health::Ok, "may change the network (CAP_NET_ADMIN)", ""};
    return {Health::Missing, "may not change the network: CAP_NET_ADMIN is missing", "run as root"};
}

Finding checkTunDevice(Context&)
{
    const UniqueFd device(open("/dev/net/tun", O_RDWR | O_CLOEXEC));
    if (!device.valid()) {
        const int error = errno;
        return {Health::Missing, fmt::format("/dev/net/tun: {}", std::strerror(error)),
                error == EACCES || error == EPERM ? "run as root" : "load the module: modprobe tun"};
    }
    unsigned int features = 0;
    if (ioctl(device.get(), static_cast<wfoal::IoctlNumber>(TUNGETFEATURES), &features) != 0 ||
        (features & IFF_TUN) == 0) {
        return {Health::Missing, "/dev/net/tun is not the kernel's tunnel device", "load the module: modprobe tun"};
    }
    return {Health::Ok, "/dev/net/tun can be opened", ""};
}

#ifdef WFOAL_HOST_PLATFORM

Finding checkFilter(Context&)
{
    // Without the privilege there is no answer.
    if (!hasCapability(CAP_NET_ADMIN)) return {Health::Missing, "nftables does not answer just anybody", "run as root"};
    const std::string fault = filterFault();
    if (fault.empty()) return {Health::Ok, "nftables answers", ""};
    return {Health::Missing, "nftables: " + fault, "load the module: modprobe nf_tables"};
}

#else

Finding checkFilter(Context&)
{
    return {Health::Ok, "the device's own platform filters", ""};
}

#endif

}  // namespace vpnoalctl
