// SPDX-License-Identifier: Apache-2.0
//
// The headers and attributes of nftables messages, whose numbers are in network byte order.
#ifndef VKNETCONFIG_NFTATTRIBUTES_H
#define VKNETCONFIG_NFTATTRIBUTES_H

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>

#include <cstdint>

#include "netlink/PutAttributes.h"

namespace vknetconfig {

/// `type`: NFT_MSG_...; `family`: NFPROTO_...
inline nlmsghdr* putNftHeader(char* place, std::uint16_t type, std::uint8_t family)
{
    nlmsghdr* const message = mnl_nlmsg_put_header(place);
    message->nlmsg_type = static_cast<std::uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | type);
    auto* const header = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
    header->nfgen_family = family;
    header->version = NFNETLINK_V0;
    return message;
}

inline void putNumber(nlmsghdr* message, std::uint16_t type, std::uint32_t number)
{
    wfoal::putU32(message, type, htonl(number));
}

}  // namespace vknetconfig

#endif
