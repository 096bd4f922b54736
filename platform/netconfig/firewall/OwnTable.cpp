// SPDX-License-Identifier: Apache-2.0
#include "firewall/OwnTable.h"

namespace vknetconfig {

TableFound findOwnTable(NetlinkSocket& socket, const std::string& label)
{
    const TableFound found = findTable(socket, label);
    if (found.state == TableState::Foreign)
        throw RequestError("label", "the table inet " + label + " is there already and is not ours");
    return found;
}

void removeTable(NetlinkSocket& socket, const TableFound& table)
{
    NftTransaction transaction(socket);
    addTableRemoval(transaction, table.handle);
    const std::optional<NetlinkFailure> failure = transaction.commit();
    if (failure && failure->error != ENOENT) throw RequestError("nftables", "the kernel: " + failure->reason());
}

}  // namespace vknetconfig
