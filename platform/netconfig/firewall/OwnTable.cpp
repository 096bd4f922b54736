// SPDX-License-Identifier: Apache-2.0
#include "firewall/OwnTable.h"

#include <exception>

namespace vknetconfig {

namespace {

// False also when that cannot be told: then the request fails, and the undo log says what to roll back.
bool hasChanged(NetlinkSocket& socket, const std::string& label, const TableFound& before)
{
    try {
        const TableFound now = findTable(socket, label);
        return now.state != before.state || now.handle != before.handle;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

TableFound findOwnTable(NetlinkSocket& socket, const std::string& label)
{
    const TableFound found = findTable(socket, label);
    if (found.state == TableState::Foreign)
        throw RequestError("label", "the table inet " + label + " is there already and is not ours");
    return found;
}

std::optional<NetlinkFailure> commitChange(NftTransaction& transaction, NetlinkSocket& socket, const std::string& label,
                                           const TableFound& before)
{
    try {
        return transaction.commit();
    } catch (const std::exception&) {
        if (!hasChanged(socket, label, before)) throw;
        return std::nullopt;
    }
}

void removeTable(NetlinkSocket& socket, const std::string& label, const TableFound& table)
{
    NftTransaction transaction(socket);
    addTableRemoval(transaction, table.handle);
    const std::optional<NetlinkFailure> failure = commitChange(transaction, socket, label, table);
    if (failure && failure->error != ENOENT) throw RequestError("nftables", "the kernel: " + failure->reason());
}

}  // namespace vknetconfig
