// SPDX-License-Identifier: Apache-2.0
#include "tunnel/TunDevice.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "CommandError.h"

namespace vpnoalctl {

namespace {

using wfoal::Ipv4Address;

constexpr char askDoctor[] = "'vpnoalctl doctor' shows what is missing";

ifreq requestForDevice()
{
    ifreq request{};
    std::memcpy(request.ifr_name, tunnelDeviceName, sizeof tunnelDeviceName);
    return request;
}

class DeviceControl {
public:
    DeviceControl() : mSocket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        if (!mSocket.valid()) throw systemError("socket", errno, askDoctor);
    }

    void set(unsigned long command, Ipv4Address address, const char* what) const
    {
        ifreq request = requestForDevice();
        sockaddr_in value{};
        value.sin_family = AF_INET;
        value.sin_addr.s_addr = address.bits;
        std::memcpy(&request.ifr_addr, &value, sizeof value);
        change(command, request, what);
    }

    void change(unsigned long command, ifreq& request, const char* what) const
    {
        if (ioctl(mSocket.get(), command, &request) == 0) return;
        throw systemError(fmt::format("{} of {}", what, tunnelDeviceName), errno, askDoctor);
    }

    Ipv4Address address(unsigned long query) const
    {
        ifreq request = requestForDevice();
        if (ioctl(mSocket.get(), query, &request) != 0) return {};
        sockaddr_in value{};
        std::memcpy(&value, &request.ifr_addr, sizeof value);
        return {value.sin_addr.s_addr};
    }

private:
    UniqueFd mSocket;
};

UniqueFd openDevice()
{
    UniqueFd descriptor(open("/dev/net/tun", O_RDWR | O_CLOEXEC));
    if (!descriptor.valid()) throw systemError("/dev/net/tun", errno, askDoctor);
    ifreq request = requestForDevice();
    // Exclusive: never attach to the tunnel of another process.
    request.ifr_flags = static_cast<short>(IFF_TUN | IFF_NO_PI | IFF_TUN_EXCL);
    if (ioctl(descriptor.get(), TUNSETIFF, &request) != 0) {
        const int error = errno;
        if (if_nametoindex(tunnelDeviceName) != 0) {
            throw CommandError(tunnelDeviceName, "exists already",
                               "end the other tunnel, or configure this one with 'vpnoalctl apply'");
        }
        throw systemError(tunnelDeviceName, error, askDoctor);
    }
    return descriptor;
}

}  // namespace

TunDevice::TunDevice(const TunnelSettings& settings) : mDescriptor(openDevice())
{
    const DeviceControl control;
    control.set(SIOCSIFADDR, settings.address.address, "address");
    control.set(SIOCSIFDSTADDR, settings.peer, "peer");
    control.set(SIOCSIFNETMASK, settings.address.mask(), "netmask");
    ifreq request = requestForDevice();
    request.ifr_mtu = static_cast<int>(settings.mtu);
    control.change(SIOCSIFMTU, request, "MTU");
    request = requestForDevice();
    control.change(SIOCGIFFLAGS, request, "state");
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    control.change(SIOCSIFFLAGS, request, "state");
}

void checkDevice(const TunnelSettings& settings)
{
    if (if_nametoindex(tunnelDeviceName) == 0) {
        throw CommandError(tunnelDeviceName, "there is no such interface",
                           "let the agent make it first, or use 'vpnoalctl connect', which makes one");
    }
    const DeviceControl control;
    const struct {
        const char* what;
        unsigned long query;
        Ipv4Address wanted;
    } properties[] = {{"address", SIOCGIFADDR, settings.address.address},
                      {"netmask", SIOCGIFNETMASK, settings.address.mask()},
                      {"peer", SIOCGIFDSTADDR, settings.peer}};
    for (const auto& property : properties) {
        const Ipv4Address found = control.address(property.query);
        if (found == property.wanted) continue;
        throw CommandError(tunnelDeviceName,
                           fmt::format("its {} is {}, the profile says {}", property.what,
                                       found.bits != 0 ? dotted(found) : "not set", dotted(property.wanted)),
                           "change one of the two; nothing was changed");
    }
    ifreq request = requestForDevice();
    control.change(SIOCGIFFLAGS, request, "state");
    if ((request.ifr_flags & IFF_UP) == 0) {
        throw CommandError(tunnelDeviceName, "is down", fmt::format("set it up: ip link set {} up", tunnelDeviceName));
    }
}

unsigned int deviceMtu()
{
    ifreq request = requestForDevice();
    DeviceControl().change(SIOCGIFMTU, request, "MTU");
    return static_cast<unsigned int>(request.ifr_mtu);
}

}  // namespace vpnoalctl
