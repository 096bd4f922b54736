// SPDX-License-Identifier: Apache-2.0
#include "tunnel/LinkWatch.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>

#include "CommandError.h"

namespace vpnoalctl {

LinkWatch::LinkWatch(const char* name)
    : mNotices(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)), mIndex(if_nametoindex(name))
{
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK;
    if (!mNotices.valid() || bind(mNotices.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        throw systemError("netlink", errno, "free resources and try again");
    }
}

bool LinkWatch::isGone() const
{
    // Neither the content of a notice nor a lost one matters: the kernel is asked.
    char notice[8192];
    while (recv(mNotices.get(), notice, sizeof notice, 0) >= 0 || errno == ENOBUFS) {
    }
    char name[IF_NAMESIZE];
    return if_indextoname(mIndex, name) == nullptr;
}

}  // namespace vpnoalctl
