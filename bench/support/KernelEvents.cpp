// SPDX-License-Identifier: Apache-2.0
#include "KernelEvents.h"

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <string>

#include "Require.h"

namespace bench {

KernelEvents::KernelEvents()
{
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_ROUTE;
    require(bind(mSocket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "bind");
    mThread = std::thread([this] { listen(); });
}

KernelEvents::~KernelEvents()
{
    mIsStopped = true;
    mThread.join();
}

Clock::time_point KernelEvents::firstBefore(Clock::time_point done) const
{
    while (!mIsSeen.load())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return std::min(mFirst.load(), done);
}

void KernelEvents::listen()
{
    alignas(nlmsghdr) char buffer[16384];
    while (!mIsStopped) {
        pollfd readable{mSocket.get(), POLLIN, 0};
        if (poll(&readable, 1, 100) <= 0) continue;
        const ssize_t length = recv(mSocket.get(), buffer, sizeof buffer, 0);
        const Clock::time_point now = Clock::now();
        if (length < static_cast<ssize_t>(sizeof(nlmsghdr))) continue;
        if (reinterpret_cast<const nlmsghdr*>(buffer)->nlmsg_type != mType.load() || mIsSeen.load()) continue;
        mFirst.store(now);
        mIsSeen.store(true);
    }
}

void setLink(const char* name, bool isUp)
{
    const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    std::string(name).copy(request.ifr_name, sizeof request.ifr_name - 1);
    require(ioctl(socket.get(), SIOCGIFFLAGS, &request) == 0, "SIOCGIFFLAGS");
    request.ifr_flags = static_cast<short>(isUp ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
    require(ioctl(socket.get(), SIOCSIFFLAGS, &request) == 0, "SIOCSIFFLAGS");
}

}  // namespace bench
