// SPDX-License-Identifier: Apache-2.0
//
// What the kernel answers to one request over netlink: a message, a dump or an error.
#ifndef WFOAL_NETLINKANSWER_H
#define WFOAL_NETLINKANSWER_H

#include <cstdint>
#include <functional>

#include "netlink/NetlinkDatagram.h"

namespace wfoal {

/// Hands each message of the answer to the request of that sequence number to `visit`; messages of other numbers are
/// left out. Returns 0 or an errno value:
/// EINTR      the answer is incomplete: a change came between, or the kernel had no room for it. Ask again.
/// ETIMEDOUT  the kernel has been silent for five seconds.
/// Any other is the kernel's own, or the socket's.
int receiveAnswer(int socket, NetlinkDatagram& datagram, std::uint32_t sequence,
                  const std::function<void(const nlmsghdr&)>& visit);

}  // namespace wfoal

#endif
