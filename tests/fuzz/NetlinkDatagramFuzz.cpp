// SPDX-License-Identifier: Apache-2.0
//
// A datagram of netlink, as far as the connection manager reads it.
#include "netlink/NetlinkDatagram.h"

#include "SnapshotParser.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    wfoal::NetlinkDatagram datagram(size);
    if (!datagram.assign(data, size)) return 0;
    connectionmanager::Snapshot snapshot;
    while (const nlmsghdr* message = datagram.next()) {
        connectionmanager::mayChangeSnapshot(*message);
        connectionmanager::addToSnapshot(*message, snapshot);
        if (message->nlmsg_type == NLMSG_ERROR) wfoal::errorOf(*message);
    }
    return 0;
}
