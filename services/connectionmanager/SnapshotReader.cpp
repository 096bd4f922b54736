// SPDX-License-Identifier: Apache-2.0
#include "SnapshotReader.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>

#include "SnapshotParser.h"
#include "netlink/NetlinkDump.h"

namespace connectionmanager {

std::optional<Snapshot> readSnapshot()
{
    Snapshot snapshot;
    errno = wfoal::dumpTables(
        {{RTM_GETLINK, AF_UNSPEC}, {RTM_GETADDR, AF_INET}, {RTM_GETROUTE, AF_INET}}, [&] { snapshot = {}; },
        [&](const nlmsghdr& message) { addToSnapshot(message, snapshot); });
    return errno == 0 ? std::optional<Snapshot>(std::move(snapshot)) : std::nullopt;
}

}  // namespace connectionmanager
