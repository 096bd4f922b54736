// SPDX-License-Identifier: Apache-2.0
//
// Another process on netlink, as far as the receiver of a datagram can tell.
#ifndef WFOAL_TEST_FOREIGNNETLINK_H
#define WFOAL_TEST_FOREIGNNETLINK_H

#include <linux/netlink.h>
#include <sys/socket.h>

#include <string>

#include "handles/UniqueFd.h"

namespace testsupport {

/// Sends a datagram to a netlink socket, from a socket of the same protocol that is not the kernel's. Takes
/// CAP_NET_ADMIN.
inline bool sendAsForeigner(int receiver, int protocol, const std::string& datagram)
{
    sockaddr_nl address{};
    socklen_t size = sizeof address;
    if (getsockname(receiver, reinterpret_cast<sockaddr*>(&address), &size) != 0) return false;
    address.nl_groups = 0;
    const UniqueFd sender(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol));
    return sendto(sender.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&address),
                  sizeof address) == static_cast<ssize_t>(datagram.size());
}

}  // namespace testsupport

#endif
