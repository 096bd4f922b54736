// SPDX-License-Identifier: Apache-2.0
#include "guard/GuardControl.h"

#include <exception>

#include "Log.h"
#include "RequestError.h"
#include "firewall/OwnTable.h"
#include "guard/GuardMessages.h"
#include "undolog/Subjects.h"

namespace vknetconfig {

std::string GuardControl::subjectOf(const std::string& ifName)
{
    return std::string(wfoal::guardSubjects) + ifName;
}

bool GuardControl::isSubject(std::string_view subject)
{
    return wfoal::isSubjectOf(wfoal::guardSubjects, subject);
}

std::optional<GuardRules> GuardControl::replace(const std::string& ifName, const std::optional<GuardRules>& rules)
{
    mSocket.followNamespace(mUndoLog.networkNamespace());
    const std::string subject = subjectOf(ifName);
    NewOwnership ownership(mUndoLog, subject);
    const std::string content = rules ? mUndoLog.own(subject) : mUndoLog.ownForRemoval(subject);
    std::optional<GuardRules> earlier = earlierRules(subject, content);
    if (rules) {
        install(subject, *rules, earlier);
        ownership.keep();
    } else {
        if (!content.empty()) removeTableOf(ifName);
        mUndoLog.erase(subject);
    }
    return earlier;
}

// Without a readable entry the table is replaced all the same; what it rejected is not known.
std::optional<GuardRules> GuardControl::earlierRules(const std::string& subject, const std::string& content)
{
    if (content.empty()) return std::nullopt;
    try {
        return GuardRules::decode(content);
    } catch (const RequestError& error) {
        VKNETCONFIG_WARNING("the entry of %s is dropped: %s", subject.c_str(), error.what());
        return std::nullopt;
    }
}

// Also in place of the same rules: somebody may have changed what the kernel has of them. One transaction leaves no
// gap.
void GuardControl::install(const std::string& subject, const GuardRules& rules,
                           const std::optional<GuardRules>& earlier)
{
    const std::string label = wfoal::guardTable(rules.ifName);
    const TableFound before = findOwnTable(mSocket, label);
    mUndoLog.write(subject, rules.encode());
    try {
        replaceTable<GuardMessages>(mSocket, label, before, rules);
    } catch (...) {
        rollBack(subject, rules.ifName, earlier);
        throw;
    }
}

// The kernel has refused the transaction, or its answer was lost. Does not throw: what cannot be rolled back stays in
// the undo log, for the next request or process.
void GuardControl::rollBack(const std::string& subject, const std::string& ifName,
                            const std::optional<GuardRules>& earlier)
{
    try {
        if (!earlier) return remove(ifName);
        mUndoLog.write(subject, earlier->encode());
    } catch (const std::exception& error) {
        VKNETCONFIG_ERROR("%s: rolling back: %s", subject.c_str(), error.what());
    }
}

void GuardControl::remove(const std::string& ifName)
{
    replace(ifName, std::nullopt);
}

void GuardControl::removeTableOf(const std::string& ifName)
{
    const std::string label = wfoal::guardTable(ifName);
    const TableFound found = findTable(mSocket, label);
    if (found.state == TableState::Ours) removeTable(mSocket, label, found);
}

void GuardControl::removeStale(const std::string& subject)
{
    mSocket.followNamespace(mUndoLog.networkNamespace());
    const std::optional<GuardRules> rules = earlierRules(subject, mUndoLog.read(subject));
    if (rules && rules->rejectsIpv4) return mUndoLog.release(subject);
    removeTableOf(subject.substr(wfoal::guardSubjects.size()));
    mUndoLog.erase(subject);
}

GuardChange::GuardChange(GuardControl& control, std::string ifName, const std::optional<GuardRules>& wanted)
    : mControl(control), mIfName(std::move(ifName)), mIsWanted(wanted.has_value())
{
    if (mIsWanted) mEarlier = mControl.replace(mIfName, wanted);
}

GuardChange::~GuardChange()
{
    if (mIsCommitted || !mIsWanted) return;
    try {
        mControl.replace(mIfName, mEarlier);
    } catch (const std::exception& error) {
        VKNETCONFIG_ERROR("%s: rolling back: %s", GuardControl::subjectOf(mIfName).c_str(), error.what());
    }
}

void GuardChange::commit()
{
    mIsCommitted = true;
    if (mIsWanted) return;
    try {
        mControl.remove(mIfName);
    } catch (const std::exception& error) {
        VKNETCONFIG_WARNING("%s stays: %s", GuardControl::subjectOf(mIfName).c_str(), error.what());
    }
}

}  // namespace vknetconfig
