// SPDX-License-Identifier: Apache-2.0
#include "firewall/FirewallControl.h"

#include <exception>
#include <utility>

#include "Log.h"
#include "firewall/FirewallMessages.h"
#include "firewall/OwnTable.h"
#include "undolog/Subjects.h"

namespace vknetconfig {

void FirewallControl::apply(const FirewallRequest& request)
{
    mSocket.followNamespace(mUndoLog.networkNamespace());
    if (request.remove) {
        remove(request.label);
    } else {
        setUp(request);
    }
}

void FirewallControl::setUp(const FirewallRequest& request)
{
    const TableFound before = findOwnTable(mSocket, request.label);
    const std::string subject = subjectOf(request.label);
    NewOwnership ownership(mUndoLog, subject);
    mUndoLog.own(subject);
    try {
        mUndoLog.write(subject, "table\n");
        replaceTable<FirewallMessages>(mSocket, request.label, before, request);
        ownership.keep();
    } catch (...) {
        if (before.state == TableState::Absent) rollBack(request.label);
        throw;
    }
}

// Only the kernel's answer may have been lost, so the entry is kept until the kernel says that there is no table. Does
// not throw: what cannot be rolled back stays in the undo log, for the next request or process.
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
    const TableFound found = findOwnTable(mSocket, label);
    const std::string subject = subjectOf(label);
    const NewOwnership ownership(mUndoLog, subject);
    mUndoLog.ownForRemoval(subject);
    if (found.state == TableState::Ours) removeTable(mSocket, label, found);
    mUndoLog.erase(subject);
}

std::string FirewallControl::subjectOf(std::string label)
{
    return wfoal::filterSubject(std::move(label));
}

bool FirewallControl::isSubject(std::string_view subject)
{
    return wfoal::isSubjectOf(wfoal::filterSubjects, subject);
}

void FirewallControl::removeStale(const std::string& subject)
{
    const std::string label = wfoal::filterTable(subject);
    // Another program's table of this name may have replaced ours.
    mSocket.followNamespace(mUndoLog.networkNamespace());
    const TableFound found = findTable(mSocket, label);
    if (found.state == TableState::Ours) removeTable(mSocket, label, found);
    mUndoLog.erase(subject);
}

}  // namespace vknetconfig
