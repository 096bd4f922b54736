// SPDX-License-Identifier: Apache-2.0
#include "netlink/NetlinkDump.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>

#include "handles/UniqueFd.h"
#include "netlink/NetlinkAnswer.h"

namespace wfoal {

namespace {

constexpr int attemptsAtMost = 10;

int send(int socket, const DumpRequest& request, std::uint32_t sequence)
{
    struct {
        nlmsghdr head;
        ifinfomsg body;  // the headers of all three requests begin with the family, and are zero otherwise
    } message{};
    message.head.nlmsg_len = sizeof message;
    message.head.nlmsg_type = request.type;
    message.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message.head.nlmsg_seq = sequence;
    message.body.ifi_family = request.family;
    return ::send(socket, &message, sizeof message, 0) < 0 ? errno : 0;
}

int dumpOnce(const std::vector<DumpRequest>& requests, const std::function<void(const nlmsghdr&)>& visit)
{
    const UniqueFd socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!socket.valid()) return errno;
    NetlinkDatagram datagram;
    std::uint32_t sequence = 0;
    for (const DumpRequest& request : requests) {
        int error = send(socket.get(), request, ++sequence);
        if (error == 0) error = receiveAnswer(socket.get(), datagram, sequence, visit);
        if (error != 0) return error;
    }
    return 0;
}

}  // namespace

int dumpTables(const std::vector<DumpRequest>& requests, const std::function<void()>& begin,
               const std::function<void(const nlmsghdr&)>& visit)
{
    int error = EINTR;
    for (int attempt = 0; error == EINTR && attempt < attemptsAtMost; ++attempt) {
        begin();
        error = dumpOnce(requests, visit);
    }
    return error;
}

}  // namespace wfoal
