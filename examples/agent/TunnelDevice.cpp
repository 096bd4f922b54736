// SPDX-License-Identifier: Apache-2.0
#include "TunnelDevice.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace {

constexpr char deviceName[] = "norvatun0";

ifreq request()
{
    ifreq made{};
    std::memcpy(made.ifr_name, deviceName, sizeof deviceName);
    return made;
}

void change(int descriptor, unsigned long operation, ifreq& what)
{
    if (ioctl(descriptor, operation, &what) != 0) throw std::system_error(errno, std::generic_category(), deviceName);
}

void setAddress(int socket, unsigned long operation, const char* text)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    if (inet_pton(AF_INET, text, &address.sin_addr) != 1)
        throw std::system_error(EINVAL, std::generic_category(), text);
    ifreq what = request();
    std::memcpy(&what.ifr_addr, &address, sizeof address);
    change(socket, operation, what);
}

}  // namespace

TunnelDevice::TunnelDevice(const char* address, const char* peer, const char* netmask)
    : mDescriptor(open("/dev/net/tun", O_RDWR | O_CLOEXEC))
{
    if (mDescriptor < 0) throw std::system_error(errno, std::generic_category(), "/dev/net/tun");
    try {
        ifreq what = request();
        what.ifr_flags = static_cast<short>(IFF_TUN | IFF_NO_PI | IFF_TUN_EXCL);
        change(mDescriptor, TUNSETIFF, what);
        configure(address, peer, netmask);
    } catch (...) {
        close(mDescriptor);
        throw;
    }
}

TunnelDevice::~TunnelDevice()
{
    close(mDescriptor);
}

void TunnelDevice::configure(const char* address, const char* peer, const char* netmask) const
{
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket < 0) throw std::system_error(errno, std::generic_category(), "socket");
    try {
        setAddress(socket, SIOCSIFADDR, address);
        setAddress(socket, SIOCSIFDSTADDR, peer);
        setAddress(socket, SIOCSIFNETMASK, netmask);
        ifreq what = request();
        change(socket, SIOCGIFFLAGS, what);
        what.ifr_flags = static_cast<short>(what.ifr_flags | IFF_UP);
        change(socket, SIOCSIFFLAGS, what);
    } catch (...) {
        close(socket);
        throw;
    }
    close(socket);
}
