// SPDX-License-Identifier: Apache-2.0
#include "tunnel/FilterState.h"

#ifdef WFOAL_HOST_PLATFORM
#include <netinet/in.h>  // before the kernel's header of the same names

#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "handles/UniqueFd.h"
#include "netlink/NetlinkAnswer.h"
#endif

namespace vpnoalctl {

#ifdef WFOAL_HOST_PLATFORM

namespace {

constexpr char filterTable[] = "vpn.vpnoal";

// Asks for the plug-in's table. 0: it is there; ENOENT: it is not; any other errno value: nftables does not answer.
int askForTable()
{
    constexpr std::uint32_t sequence = 1;
    const UniqueFd socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER));
    if (!socket.valid()) return errno;
    alignas(nlmsghdr) std::array<char, 256> bytes{};
    nlmsghdr* const request = mnl_nlmsg_put_header(bytes.data());
    request->nlmsg_type = NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_GETTABLE;
    request->nlmsg_flags = NLM_F_REQUEST;
    request->nlmsg_seq = sequence;
    auto* const head = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(nfgenmsg)));
    head->nfgen_family = NFPROTO_INET;
    head->version = NFNETLINK_V0;
    mnl_attr_put_strz(request, NFTA_TABLE_NAME, filterTable);
    if (send(socket.get(), request, request->nlmsg_len, 0) < 0) return errno;
    wfoal::NetlinkDatagram datagram;
    return wfoal::receiveAnswer(socket.get(), datagram, sequence, [](const nlmsghdr&) {});
}

}  // namespace

std::string filterFault()
{
    const int error = askForTable();
    return error == 0 || error == ENOENT ? "" : std::strerror(error);
}

FilterState filterState()
{
    switch (askForTable()) {
    case 0: return FilterState::Installed;
    case ENOENT: return FilterState::Missing;
    default: return FilterState::Unknown;
    }
}

#else

std::string filterFault()
{
    return "the device's own platform filters";
}

FilterState filterState()
{
    return FilterState::Unknown;
}

#endif

}  // namespace vpnoalctl
