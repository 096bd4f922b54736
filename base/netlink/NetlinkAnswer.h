// SPDX-License-Identifier: Apache-2.0
//
// The kernel's answer to one request over netlink: a message, a dump or an error.
#ifndef WFOAL_NETLINKANSWER_H
#define WFOAL_NETLINKANSWER_H

#include <cstdint>
#include <functional>

#include "netlink/NetlinkDatagram.h"

namespace wfoal {

/// Hands each message of the answer to the request of that sequence number to `visit`; messages of other numbers are
/// ignored. Returns 0 or an errno value:
/// EINTR      the answer is incomplete, because of a change meanwhile or a lack of room in the socket: retry.
/// ETIMEDOUT  the kernel has been silent for five seconds.
/// Any other value is an error of the kernel or of the socket.
int receiveAnswer(int socket, NetlinkDatagram& datagram, std::uint32_t sequence,
                  const std::function<void(const nlmsghdr&)>& visit);

}  // namespace wfoal

#endif
