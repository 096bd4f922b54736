// SPDX-License-Identifier: Apache-2.0
//
// The headers and attributes of nftables messages, whose numbers are in network byte order.
#ifndef VKNETCONFIG_NFTATTRIBUTES_H
#define VKNETCONFIG_NFTATTRIBUTES_H

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>

#include <cstdint>

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
    mnl_attr_put_u32(message, type, htonl(number));
}

/// What is put into the message while it lives becomes part of the nest.
class NftNest {
public:
    NftNest(nlmsghdr* message, std::uint16_t type) : mMessage(message), mBegin(mnl_attr_nest_start(message, type)) {}
    ~NftNest() { mnl_attr_nest_end(mMessage, mBegin); }
    NftNest(const NftNest&) = delete;
    NftNest& operator=(const NftNest&) = delete;

private:
    nlmsghdr* const mMessage;
    nlattr* const mBegin;
};

}  // namespace vknetconfig

#endif
