// SPDX-License-Identifier: Apache-2.0
#include "SnapshotReader.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>

#include "SnapshotParser.h"
#include "handles/UniqueFd.h"
#include "netlink/NetlinkAnswer.h"

namespace connectionmanager {

namespace {

using wfoal::NetlinkDatagram;
using wfoal::receiveAnswer;

// A dump during which the kernel's tables changed is not consistent; it is retried.
constexpr int attemptsAtMost = 10;

// 0 or an errno value.
int dump(int socket, NetlinkDatagram& datagram, std::uint16_t type, std::uint32_t sequence, Snapshot& snapshot)
{
    struct {
        nlmsghdr head;
        // The three headers begin with the family, and are zero otherwise.
        ifinfomsg body;
    } request{};
    request.head.nlmsg_len = sizeof request;
    request.head.nlmsg_type = type;
    request.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.head.nlmsg_seq = sequence;
    request.body.ifi_family = type == RTM_GETLINK ? AF_UNSPEC : AF_INET;
    if (send(socket, &request, sizeof request, 0) < 0) return errno;
    return receiveAnswer(socket, datagram, sequence,
                         [&snapshot](const nlmsghdr& message) { addToSnapshot(message, snapshot); });
}

int readOnce(Snapshot& snapshot)
{
    const UniqueFd socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!socket.valid()) return errno;
    NetlinkDatagram datagram;
    std::uint32_t sequence = 0;
    for (const std::uint16_t type : {RTM_GETLINK, RTM_GETADDR, RTM_GETROUTE}) {
        if (const int error = dump(socket.get(), datagram, type, ++sequence, snapshot)) return error;
    }
    return 0;
}

}  // namespace

std::optional<Snapshot> readSnapshot()
{
    for (int attempt = 0; attempt < attemptsAtMost; ++attempt) {
        Snapshot snapshot;
        const int error = readOnce(snapshot);
        if (error == 0) return snapshot;
        errno = error;
        if (error != EINTR) return std::nullopt;
    }
    return std::nullopt;
}

}  // namespace connectionmanager
