// SPDX-License-Identifier: Apache-2.0
//
// The bytes of a routing-table dump: framing (a datagram into messages) and parsing (a message into a record). No
// system call, no log, no allocation. Nothing outside of the bytes is read.
#ifndef WFOAL_ROUTEPARSER_H
#define WFOAL_ROUTEPARSER_H

#include <linux/netlink.h>

#include <cstddef>

#include "Decisions/RouteInfo.h"

namespace wfoal {

/// Steps through the messages of one datagram. The bytes must outlive the walk and need no alignment.
class MessageWalk {
public:
    MessageWalk(const void* bytes, std::size_t length);

    /// True while there is a whole message; message() and header() are then valid.
    bool valid() const { return mValid; }
    const unsigned char* message() const { return mNext; }
    const nlmsghdr& header() const { return mHeader; }
    void next();

private:
    void readHeader();

    const unsigned char* mNext;
    std::size_t mRemaining;
    nlmsghdr mHeader{};
    bool mValid = false;
};

/// Fills a record from the message at `message`, of which `length` bytes are readable. A header field or an attribute
/// value that lies outside of the message reads as 0. The record must be zero-filled; nothing is checked but bounds.
void parseRouteMessage(const void* message, std::size_t length, RouteInfo& route);

/// The netmask of a prefix length, in network byte order; 32 and more give all ones.
in_addr netmaskOf(unsigned prefixLength);

}  // namespace wfoal

#endif
