// SPDX-License-Identifier: Apache-2.0
#include "firewall/NftTable.h"

#include <endian.h>
#include <netinet/in.h>  // before the kernel's header of the same names

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <array>
#include <cerrno>

#include "RequestError.h"
#include "firewall/NftAttributes.h"
#include "netlink/Attributes.h"
#include "undolog/TableMark.h"

namespace vknetconfig {

namespace {

TableFound readTable(const nlmsghdr* message)
{
    const wfoal::Attributes attributes(message, sizeof(nfgenmsg));
    const bool isOurs = wfoal::bearsMark(attributes.bytes(NFTA_TABLE_USERDATA));
    return {isOurs ? TableState::Ours : TableState::Foreign, be64toh(attributes.u64(NFTA_TABLE_HANDLE))};
}

}  // namespace

TableFound findTable(NetlinkSocket& socket, const std::string& name)
{
    alignas(nlmsghdr) std::array<char, 512> request{};
    nlmsghdr* const message = putNftHeader(request.data(), NFT_MSG_GETTABLE, NFPROTO_INET);
    wfoal::putText(message, NFTA_TABLE_NAME, name);
    TableFound found;
    const int error = socket.ask(message, [&found](const nlmsghdr* answer) { found = readTable(answer); });
    if (error != 0 && error != ENOENT) throw systemError("nftables", "the kernel", error);
    return found;
}

}  // namespace vknetconfig
