// SPDX-License-Identifier: Apache-2.0
//
// A table of ours in the kernel, found, replaced and removed. A table of the same name without our mark is another
// program's and never touched. Failures throw a RequestError with the key "label" or "nftables".
#ifndef VKNETCONFIG_OWNTABLE_H
#define VKNETCONFIG_OWNTABLE_H

#include <cerrno>
#include <optional>
#include <string>

#include "RequestError.h"
#include "firewall/NftTable.h"
#include "firewall/NftTransaction.h"
#include "firewall/TableMessages.h"

namespace vknetconfig {

/// The table of this name; throws when it is another program's.
TableFound findOwnTable(NetlinkSocket& socket, const std::string& label);

/// Commits a transaction that replaces or removes the table found before. When the answer is lost, the table itself
/// tells whether the kernel has taken the transaction.
std::optional<NetlinkFailure> commitChange(NftTransaction& transaction, NetlinkSocket& socket, const std::string& label,
                                           const TableFound& before);

/// Removes the table that was found. One that is gone already is fine.
void removeTable(NetlinkSocket& socket, const std::string& label, const TableFound& table);

/// Installs a table in place of the one found before, in one transaction. `Messages` adds the table when it is made
/// from a transaction and `content`. The kernel takes the transaction only while the tables are as they were seen:
/// `before` is named by its handle, and the new table must not be there.
template <class Messages, class Content>
void replaceTable(NetlinkSocket& socket, const std::string& label, TableFound before, const Content& content)
{
    constexpr int mostAttempts = 5;  // another process changes tables of this name all the time
    for (int attempt = 1;; ++attempt) {
        NftTransaction transaction(socket);
        if (before.state == TableState::Ours) addTableRemoval(transaction, before.handle);
        const Messages messages(transaction, content);
        const std::optional<NetlinkFailure> failure = commitChange(transaction, socket, label, before);
        if (!failure) return;
        const bool isOutdated =
            messages.isAboutTables(failure->index) && (failure->error == ENOENT || failure->error == EEXIST);
        if (!isOutdated || attempt == mostAttempts)
            throw RequestError("nftables", messages.subjectOf(failure->index) + ": " + failure->reason());
        before = findOwnTable(socket, label);
    }
}

}  // namespace vknetconfig

#endif
