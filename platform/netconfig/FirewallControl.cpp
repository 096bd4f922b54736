// SPDX-License-Identifier: Apache-2.0
#include "FirewallControl.h"

#include <algorithm>
#include <cstring>
#include <exception>

#include "FirewallText.h"
#include "Log.h"
#include "RequestError.h"

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
    if (request.remove) {
        remove(request.label);
    } else {
        setUp(request);
    }
}

void FirewallControl::setUp(const FirewallRequest& request)
{
    const std::string commands = setUpCommands(request);
    const TableState before = mSession.stateOf(request.label);
    if (before == TableState::foreign) refuseForeign(request.label);
    const std::string subject = subjectOf(request.label);
    NewOwnership ownership(mJournal, subject);
    mJournal.own(subject);
    try {
        mJournal.write(subject, "table\n");
        mSession.run(commands);
        ownership.keep();
    } catch (const RequestError& error) {
        if (before == TableState::absent) rollBack(request.label);
        if (std::strstr(error.what(), "syntax error") != nullptr) refuseKeywords(request);
        throw;
    }
}

// The failure may have hit no more than the kernel's answer: the entry is kept until the kernel says that the table is
// not there. Does not throw: what cannot be rolled back stays in the journal, for the next request or process.
void FirewallControl::rollBack(const std::string& label)
{
    try {
        remove(label);
    } catch (const std::exception& error) {
        VKNETCONFIG_ERROR("%s: rolling back: %s", subjectOf(label).c_str(), error.what());
    }
}

// No other text in the commands can be wrong than names that nft's grammar uses for itself, such as "table".
void FirewallControl::refuseKeywords(const FirewallRequest& request)
{
    const auto refuse = [](const char* key, const std::string& name) {
        throw RequestError(key, excerpt(name) + " is a word of nft's own language");
    };
    if (!mSession.wouldTake("add table inet " + request.label + "\n")) refuse("label", request.label);
    if (!mSession.wouldTake("add table inet a\nadd chain inet a " + request.chain + "\n"))
        refuse("chainNew", request.chain);
}

void FirewallControl::remove(const std::string& label)
{
    const TableState state = mSession.stateOf(label);
    if (state == TableState::foreign) refuseForeign(label);
    const std::string subject = subjectOf(label);
    const NewOwnership ownership(mJournal, subject);
    mJournal.ownForRemoval(subject);
    if (state == TableState::ours) mSession.run(removalCommand(label));
    mJournal.erase(subject);
}

// Subjects are names of files; '%' is in no label.
std::string FirewallControl::subjectOf(std::string label)
{
    std::replace(label.begin(), label.end(), '/', '%');
    return std::string(subjectStart) + label;
}

bool FirewallControl::isSubject(std::string_view subject)
{
    return subject.substr(0, subjectStart.size()) == subjectStart;
}

void FirewallControl::removeLeft(const std::string& subject)
{
    const std::string label = labelOf(subject);
    // Somebody else's table of this name has taken the place of ours.
    if (mSession.stateOf(label) == TableState::ours) mSession.run(removalCommand(label));
    mJournal.erase(subject);
}

}  // namespace vknetconfig
