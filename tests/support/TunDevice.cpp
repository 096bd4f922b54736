// SPDX-License-Identifier: Apache-2.0
#include "TunDevice.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "handles/Ioctl.h"

namespace testsupport {

namespace {

void check(bool done, const char* what)
{
    if (!done) throw std::system_error(errno, std::generic_category(), what);
}

ifreq requestFor(const std::string& name)
{
    ifreq request{};
    name.copy(request.ifr_name, IFNAMSIZ - 1);
    return request;
}

void setOneAddress(int control, const std::string& name, wfoal::IoctlNumber operation, const char* text,
                   const char* what)
{
    ifreq request = requestFor(name);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    check(inet_pton(AF_INET, text, &address.sin_addr) == 1, "address");
    std::memcpy(&request.ifr_addr, &address, sizeof address);
    check(ioctl(control, operation, &request) == 0, what);
}

}  // namespace

TunDevice::TunDevice(const std::string& name) : mName(name), mDevice(open("/dev/net/tun", O_RDWR | O_CLOEXEC))
{
    check(mDevice.valid(), "/dev/net/tun");
    ifreq request = requestFor(name);
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    check(ioctl(mDevice.get(), TUNSETIFF, &request) == 0, "TUNSETIFF");
}

void TunDevice::setAddress(const char* address, const char* peer, const char* netmask)
{
    const UniqueFd control(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    check(control.valid(), "socket");
    setOneAddress(control.get(), mName, SIOCSIFADDR, address, "SIOCSIFADDR");
    if (peer != nullptr) setOneAddress(control.get(), mName, SIOCSIFDSTADDR, peer, "SIOCSIFDSTADDR");
    setOneAddress(control.get(), mName, SIOCSIFNETMASK, netmask, "SIOCSIFNETMASK");
    ifreq request = requestFor(mName);
    check(ioctl(control.get(), SIOCGIFFLAGS, &request) == 0, "SIOCGIFFLAGS");
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    check(ioctl(control.get(), SIOCSIFFLAGS, &request) == 0, "SIOCSIFFLAGS");
}

}  // namespace testsupport
