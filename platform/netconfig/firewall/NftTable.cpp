// SPDX-License-Identifier: Apache-2.0
#include "firewall/NftTable.h"

#include <netinet/in.h>  // before the kernel's header of the same names

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <array>
#include <cerrno>
#include <new>

#include "RequestError.h"
#include "handles/Nftnl.h"
#include "undolog/TableMark.h"

namespace vknetconfig {

namespace {

TableFound readTable(const nlmsghdr* message)
{
    const NftnlTablePtr table(nftnl_table_alloc());
    if (!table) throw std::bad_alloc();
    if (nftnl_table_nlmsg_parse(message, table.get()) < 0) throw systemError("nftables", "receive", errno);
    std::uint32_t length = 0;
    const auto* data = static_cast<const char*>(nftnl_table_get_data(table.get(), NFTNL_TABLE_USERDATA, &length));
    const bool isOurs = data != nullptr && wfoal::bearsMark({data, length});
    return {isOurs ? TableState::Ours : TableState::Foreign, nftnl_table_get_u64(table.get(), NFTNL_TABLE_HANDLE)};
}

}  // namespace

TableFound findTable(NetlinkSocket& socket, const std::string& name)
{
    const NftnlTablePtr wanted(nftnl_table_alloc());
    if (!wanted || nftnl_table_set_str(wanted.get(), NFTNL_TABLE_NAME, name.c_str()) < 0) throw std::bad_alloc();
    alignas(nlmsghdr) std::array<char, 256> request{};
    nlmsghdr* const message = nftnl_nlmsg_build_hdr(request.data(), NFT_MSG_GETTABLE, NFPROTO_INET, 0, 0);
    nftnl_table_nlmsg_build_payload(message, wanted.get());
    TableFound found;
    const int error = socket.ask(message, [&found](const nlmsghdr* answer) { found = readTable(answer); });
    if (error != 0 && error != ENOENT) throw systemError("nftables", "the kernel", error);
    return found;
}

}  // namespace vknetconfig
