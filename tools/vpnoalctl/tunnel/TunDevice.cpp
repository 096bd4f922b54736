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
#include "handles/Ioctl.h"

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

    void set(wfoal::IoctlNumber command, Ipv4Address address, const char* what) const
    {
        ifreq request = requestForDevice();
        sockaddr_in value{};
        value.sin_family = AF_INET;
        value.sin_addr.s_addr = address.bits;
        std::memcpy(&request.ifr_addr, &value, sizeof value);
        change(command, request, what);
    }

    void change(wfoal::IoctlNumber command, ifreq& request, const char* what) const
    {
        if (ioctl(mSocket.get(), command, &request) == 0) return;
        throw systemError(fmt::format("{} of {}", what, tunnelDeviceName), errno, askDoctor);
    }

    bool query(wfoal::IoctlNumber command, ifreq& answer) const { return ioctl(mSocket.get(), command, &answer) == 0; }

    Ipv4Address address(wfoal::IoctlNumber command) const
    {
        ifreq request = requestForDevice();
        if (!query(command, request)) return {};
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

// A device without a peer gives its own address for one.
TunnelSettings settingsOf(const DeviceControl& control)
{
    TunnelSettings found;
    found.address.address = control.address(SIOCGIFADDR);
    found.address.prefix = wfoal::prefixLength(control.address(SIOCGIFNETMASK)).value_or(32);
    const Ipv4Address peer = control.address(SIOCGIFDSTADDR);
    if (peer.bits != 0 && peer != found.address.address) found.peer = peer;
    ifreq request = requestForDevice();
    control.change(SIOCGIFMTU, request, "MTU");
    found.mtu = static_cast<unsigned int>(request.ifr_mtu);
    return found;
}

// A device may have a peer that the profile does not name.
void compare(const TunnelSettings& wanted, const TunnelSettings& found)
{
    const struct {
        const char* what;
        Ipv4Address found;
        Ipv4Address wanted;
    } properties[] = {{"address", found.address.address, wanted.address.address},
                      {"netmask", found.address.mask(), wanted.address.mask()},
                      {"peer", found.peer.value_or(Ipv4Address{}), wanted.peer.value_or(Ipv4Address{})}};
    for (const auto& property : properties) {
        if (property.found == property.wanted) continue;
        if (property.wanted.bits == 0) continue;
        throw CommandError(
            tunnelDeviceName,
            fmt::format("its {} is {}, the profile says {}", property.what,
                        property.found.bits != 0 ? dotted(property.found) : "not set", dotted(property.wanted)),
            "change one of the two; nothing was changed");
    }
}

}  // namespace

TunDevice::TunDevice(const TunnelSettings& settings) : mDescriptor(openDevice())
{
    const DeviceControl control;
    control.set(SIOCSIFADDR, settings.address.address, "address");
    if (settings.peer) control.set(SIOCSIFDSTADDR, *settings.peer, "peer");
    control.set(SIOCSIFNETMASK, settings.address.mask(), "netmask");
    ifreq request = requestForDevice();
    request.ifr_mtu = static_cast<int>(settings.mtu);
    control.change(SIOCSIFMTU, request, "MTU");
    request = requestForDevice();
    control.change(SIOCGIFFLAGS, request, "state");
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    control.change(SIOCSIFFLAGS, request, "state");
}

TunnelSettings usedDevice(const std::optional<TunnelSettings>& wanted)
{
    if (if_nametoindex(tunnelDeviceName) == 0) {
        throw CommandError(tunnelDeviceName, "there is no such interface",
                           "let the VPN program make it under this name, or use 'vpnoalctl connect', which makes one");
    }
    const DeviceControl control;
    const TunnelSettings found = settingsOf(control);
    if (wanted) compare(*wanted, found);
    if (found.address.address.bits == 0) {
        throw CommandError(tunnelDeviceName, "it has no IPv4 address",
                           fmt::format("give it one: ip address add ADDRESS/PREFIX dev {}", tunnelDeviceName));
    }
    ifreq request = requestForDevice();
    control.change(SIOCGIFFLAGS, request, "state");
    if ((request.ifr_flags & IFF_UP) == 0) {
        throw CommandError(tunnelDeviceName, "is down", fmt::format("set it up: ip link set {} up", tunnelDeviceName));
    }
    return found;
}

std::optional<ReadyDevice> readyDevice()
{
    try {
        const unsigned int index = if_nametoindex(tunnelDeviceName);
        if (index != 0) return ReadyDevice{index, usedDevice(std::nullopt)};
    } catch (const CommandError&) {
        // It is not ready, or was removed meanwhile.
    }
    return std::nullopt;
}

}  // namespace vpnoalctl
