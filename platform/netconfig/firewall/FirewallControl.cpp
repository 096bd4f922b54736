// SPDX-License-Identifier: Apache-2.0
#include "firewall/FirewallControl.h"

#include <algorithm>
#include <cerrno>
#include <exception>

#include "Log.h"
#include "RequestError.h"
#include "firewall/FirewallMessages.h"
#include "firewall/NftTransaction.h"

namespace vknetconfig {

namespace {

constexpr std::string_view subjectStart = "firewall-";

std::string labelOf(const std::string& subject)
{
    std::string label = subject.substr(subjectStart.size());
    std::replace(label.begin(), label.end(), '%', '/');
    return label;
}

[[noreturn]] void refuseForeign(const std::string& label)
{
    throw RequestError("label", "the table inet " + label + " is there already and is not ours");
}

}  // namespace

void FirewallControl::apply(const FirewallRequest& request)
{
    mSocket.followNamespace();
    if (request.remove) {
        remove(request.label);
    } else {
        setUp(request);
    }
}

void FirewallControl::setUp(const FirewallRequest& request)
{
    const TableFound before = findReplaceable(request.label);
    const std::string subject = subjectOf(request.label);
    NewOwnership ownership(mUndoLog, subject);
    mUndoLog.own(subject);
    try {
        mUndoLog.write(subject, "table\n");
        replace(request, before);
        ownership.keep();
    } catch (...) {
        if (before.state == TableState::Absent) rollBack(request.label);
        throw;
    }
}

TableFound FirewallControl::findReplaceable(const std::string& label)
{
    const TableFound found = findTable(mSocket, label);
    if (found.state == TableState::Foreign) refuseForeign(label);
    return found;
}

// The kernel takes the transaction only while the tables are as they were seen: `before` is named by its handle, and
// the new table must not be there.
void FirewallControl::replace(const FirewallRequest& request, TableFound before)
{
    constexpr int mostAttempts = 5;  // another process changes tables of this name all the time
    for (int attempt = 1;; ++attempt) {
        NftTransaction transaction(mSocket);
        if (before.state == TableState::Ours) addTableRemoval(transaction, before.handle);
        const FirewallMessages messages(transaction, request);
        const std::optional<NetlinkFailure> failure = transaction.commit();
        if (!failure) return;
        const bool isOutdated =
            messages.isAboutTables(failure->index) && (failure->error == ENOENT || failure->error == EEXIST);
        if (!isOutdated || attempt == mostAttempts)
            throw RequestError("nftables", messages.subjectOf(failure->index) + ": " + failure->reason());
        before = findReplaceable(request.label);
    }
}

// The failure may have hit no more than the kernel's answer: the entry is kept until the kernel says that the table is
// not there. Does not throw: what cannot be rolled back stays in the undo log, for the next request or process.
void FirewallControl::rollBack(const std::string& label)
{
    try {
        remove(label);
    } catch (const std::exception& error) {
        VKNETCONFIG_ERROR("%s: rolling back: %s", subjectOf(label).c_str(), error.what());
    }
}

void FirewallControl::remove(const std::string& label)
{
    const TableFound found = findReplaceable(label);
    const std::string subject = subjectOf(label);
    const NewOwnership ownership(mUndoLog, subject);
    mUndoLog.ownForRemoval(subject);
    if (found.state == TableState::Ours) removeTable(found);
    mUndoLog.erase(subject);
}

// Subjects are names of files; '%' is in no label.
std::string FirewallControl::subjectOf(std::string label)
{
    std::replace(label.begin(), label.end(), '/', '%');
    return std::string(subjectStart) + label;
}

void FirewallControl::removeTable(const TableFound& table)
{
    NftTransaction transaction(mSocket);
    addTableRemoval(transaction, table.handle);
    const std::optional<NetlinkFailure> failure = transaction.commit();
    if (failure && failure->error != ENOENT) throw RequestError("nftables", "the kernel: " + failure->reason());
}

bool FirewallControl::isSubject(std::string_view subject)
{
    return subject.substr(0, subjectStart.size()) == subjectStart;
}

void FirewallControl::removeStale(const std::string& subject)
{
    const std::string label = labelOf(subject);
    // Another program's table of this name may have replaced ours.
    mSocket.followNamespace();
    const TableFound found = findTable(mSocket, label);
    if (found.state == TableState::Ours) removeTable(found);
    mUndoLog.erase(subject);
}

}  // namespace vknetconfig
