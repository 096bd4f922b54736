// SPDX-License-Identifier: Apache-2.0
#include "SnapshotReader.h"

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "SnapshotParser.h"
#include "handles/Mnl.h"

namespace conman {

namespace {

// A dump during which the kernel's tables changed is not consistent, and is asked for again.
constexpr int attemptsAtMost = 10;
constexpr std::size_t bufferSize = 32768;

int enterMessage(const nlmsghdr* message, void* snapshot)
{
    addToSnapshot(*message, *static_cast<Snapshot*>(snapshot));
    return MNL_CB_OK;
}

bool dump(mnl_socket* socket, std::uint16_t type, unsigned sequence, Snapshot& snapshot)
{
    alignas(nlmsghdr) std::array<char, bufferSize> buffer;
    nlmsghdr* request = mnl_nlmsg_put_header(buffer.data());
    request->nlmsg_type = type;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request->nlmsg_seq = sequence;
    // The three headers begin with the family, and are zero otherwise.
    auto* header = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)));
    header->ifi_family = type == RTM_GETLINK ? AF_UNSPEC : AF_INET;
    if (mnl_socket_sendto(socket, request, request->nlmsg_len) < 0) return false;
    int state = MNL_CB_OK;
    while (state > MNL_CB_STOP) {
        const ssize_t size = mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
        if (size < 0) return false;
        state = mnl_cb_run(buffer.data(), static_cast<std::size_t>(size), sequence, mnl_socket_get_portid(socket),
                           enterMessage, &snapshot);
    }
    return state == MNL_CB_STOP;
}

bool readOnce(Snapshot& snapshot)
{
    const MnlSocketPtr socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
    if (socket == nullptr || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) return false;
    unsigned sequence = 0;
    for (const std::uint16_t type : {RTM_GETLINK, RTM_GETADDR, RTM_GETROUTE}) {
        if (!dump(socket.get(), type, ++sequence, snapshot)) return false;
    }
    return true;
}

}  // namespace

std::optional<Snapshot> readSnapshot()
{
    for (int attempt = 0; attempt < attemptsAtMost; ++attempt) {
        Snapshot snapshot;
        if (readOnce(snapshot)) return snapshot;
        if (errno != EINTR) return std::nullopt;
    }
    return std::nullopt;
}

}  // namespace conman
