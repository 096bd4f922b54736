// SPDX-License-Identifier: Apache-2.0
#include "run/NetworkWatch.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>

#include "CommandError.h"

namespace vpnoalctl {

NetworkWatch::NetworkWatch() : mNotices(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE))
{
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE;
    if (!mNotices.valid() || bind(mNotices.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        throw systemError("netlink", errno, "free resources and try again");
    }
}

bool NetworkWatch::takeChange(Clock::time_point now)
{
    // Neither the content of a notice nor a lost one matters: the kernel is asked.
    bool changed = false;
    char notice[8192];
    while (recv(mNotices.get(), notice, sizeof notice, 0) >= 0 || errno == ENOBUFS)
        changed = true;
    if (changed) {
        mLookAgain = now + settling;
    } else if (mLookAgain && now >= *mLookAgain) {
        mLookAgain.reset();
        changed = true;
    }
    return changed;
}

}  // namespace vpnoalctl
