// SPDX-License-Identifier: Apache-2.0
#include "interface/InterfaceControl.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <iterator>
#include <map>

#include "Log.h"
#include "RequestError.h"
#include "interface/RecordValues.h"
#include "interface/StepErrors.h"
#include "undolog/KeptSubjects.h"
#include "undolog/Subjects.h"

namespace vknetconfig {

namespace {

std::vector<Route> onePerGateway(const std::vector<Route>& routes)
{
    std::map<in_addr_t, Route> found;
    for (const Route& route : routes) {
        if (route.gateway != 0) found.emplace(route.gateway, route);
    }
    std::vector<Route> chosen;
    chosen.reserve(found.size());
    for (const auto& [gateway, route] : found)
        chosen.push_back(route);
    return chosen;
}

// Drop a damaged entry: failing on it would block every later request.
InterfaceRecord readRecord(const std::string& subject, const std::string& content)
{
    try {
        if (!content.empty()) return InterfaceRecord::decode(content);
    } catch (const RequestError& error) {
        VKNETCONFIG_WARNING("the entry of %s is dropped: %s", subject.c_str(), error.what());
    }
    return {};
}

// Everything that is installed at some time during a change.
InterfaceRecord unionOf(InterfaceRecord record, const InterfaceRecord& dropped, const std::vector<std::string>& dns)
{
    record.addresses.insert(record.addresses.end(), dropped.addresses.begin(), dropped.addresses.end());
    record.routes.insert(record.routes.end(), dropped.routes.begin(), dropped.routes.end());
    std::copy_if(dns.begin(), dns.end(), std::back_inserter(record.dns),
                 [&](const std::string& line) { return !contains(record.dns, line); });
    return record;
}

}  // namespace

// The key of the request that the kernel refused. If the interface is gone, the kernel's error only names a
// consequence.
void InterfaceControl::refuse(const NetlinkFailure& failure, const InterfaceRequest& request,
                              const InterfaceRecord& added)
{
    if (!linkWithIndex(mSocket, added.index)) throw RequestError("ifName", "the interface is gone");
    if (failure.error == EPERM) throw RequestError("netlink", failure.reason() + ": CAP_NET_ADMIN is needed");
    const std::size_t links = added.linkBefore ? 1 : 0;
    if (failure.index < links) throw RequestError("ifName", "cannot be brought up: " + failure.reason());
    const std::size_t routesFrom = links + added.addresses.size();
    if (failure.index < routesFrom) throw RequestError("ipv4.ip", "cannot be added: " + failure.reason());
    const Route& route = added.routes.at(failure.index - routesFrom);
    const auto place = std::find(request.routes.begin(), request.routes.end(), route) - request.routes.begin();
    throw RequestError(request.routeKey(static_cast<std::size_t>(place)), "cannot be added: " + failure.reason());
}

bool InterfaceControl::isSubject(std::string_view subject)
{
    return wfoal::isSubjectOf(wfoal::interfaceSubjects, subject);
}

std::string InterfaceControl::subjectOf(const std::string& ifName)
{
    return std::string(wfoal::interfaceSubjects) + ifName;
}

void InterfaceControl::apply(const InterfaceRequest& request, const std::optional<GuardRules>& guard)
{
    std::optional<Dns::Request> dns;
    if (!request.dns.empty()) dns.emplace(mDns);
    mSocket.followNamespace(mUndoLog.networkNamespace());
    const std::string subject = subjectOf(request.ifName);
    NewOwnership ownership(mUndoLog, subject);
    const bool isOurs = mUndoLog.owns(subject);
    InterfaceRecord earlier = readRecord(subject, mUndoLog.own(subject));
    if (!isOurs) earlier = mInstalled.installedPart(std::move(earlier));
    GuardChange guardChange(mGuards, request.ifName, guard);
    replace(request, subject, earlier);
    guardChange.commit();
    ownership.keep();
}

void InterfaceControl::replace(const InterfaceRequest& request, const std::string& subject, InterfaceRecord& earlier)
{
    Plan changes;
    try {
        const LinkState link = linkFor(request, earlier);
        changes = plan(request, link, earlier);
        mUndoLog.write(subject, unionOf(changes.wanted, changes.dropped, earlier.dns).encode());
    } catch (...) {
        if (earlier.name.empty()) mUndoLog.erase(subject);
        throw;
    }
    try {
        carryOut(request, changes);
    } catch (...) {
        rollBack(subject, changes, earlier);
        throw;
    }
    commitUndoLog(subject, changes, earlier);
    VKNETCONFIG_INFO("%s: %zu routes installed, %zu of them new", request.ifName.c_str(), changes.wanted.routes.size(),
                     changes.added.routes.size());
}

void InterfaceControl::remove(const std::string& ifName)
{
    mSocket.followNamespace(mUndoLog.networkNamespace());
    const std::string subject = subjectOf(ifName);
    NewOwnership ownership(mUndoLog, subject);
    const InterfaceRecord record = readRecord(subject, mUndoLog.ownForRemoval(subject));
    removeInstalled(record);
    if (!isLeftToReplacement(GuardControl::subjectOf(ifName))) mGuards.remove(ifName);
    forget(subject, record);
    if (!record.name.empty()) VKNETCONFIG_INFO("%s: configuration removed", ifName.c_str());
}

void InterfaceControl::removeStale(const std::string& subject)
{
    mSocket.followNamespace(mUndoLog.networkNamespace());
    const InterfaceRecord record = readRecord(subject, mUndoLog.read(subject));
    removeInstalled(record);
    forget(subject, record);
    VKNETCONFIG_INFO("%s: removed the stale configuration of an ended process", subject.c_str());
}

// Ignores a record of an earlier interface with the same name.
LinkState InterfaceControl::linkFor(const InterfaceRequest& request, InterfaceRecord& earlier)
{
    const std::optional<LinkState> link = linkNamed(mSocket, request.ifName);
    if (!link) throw RequestError("ifName", "there is no interface " + request.ifName);
    if (!earlier.name.empty() && earlier.index != link->index) {
        removeInstalled(earlier);
        earlier = {};
    }
    return *link;
}

InterfaceControl::Plan InterfaceControl::plan(const InterfaceRequest& request, const LinkState& link,
                                              const InterfaceRecord& earlier)
{
    Plan plan;
    for (InterfaceRecord* record : {&plan.wanted, &plan.added, &plan.dropped}) {
        record->index = link.index;
        record->name = request.ifName;
    }
    if (!link.isUp) plan.added.linkBefore = link;
    plan.wanted.linkBefore = earlier.linkBefore ? earlier.linkBefore : plan.added.linkBefore;
    planAddress(request, earlier, plan);
    planRoutes(request, earlier, plan);
    planDns(request, earlier, plan);
    return plan;
}

// An address that the device has already is not ours to add or to remove.
void InterfaceControl::planAddress(const InterfaceRequest& request, const InterfaceRecord& earlier, Plan& plan)
{
    if (request.address) {
        const bool isThere = hasAddress(addressesOf(mSocket, plan.wanted.index), *request.address);
        if (!isThere) plan.added.addresses.push_back(*request.address);
        if (!isThere || contains(earlier.addresses, *request.address)) {
            plan.wanted.addresses.push_back(*request.address);
        }
    }
    for (const InterfaceAddress& address : earlier.addresses) {
        if (!contains(plan.wanted.addresses, address)) plan.dropped.addresses.push_back(address);
    }
}

// Routes that stay are left alone, so that traffic through them goes on.
void InterfaceControl::planRoutes(const InterfaceRequest& request, const InterfaceRecord& earlier, Plan& plan)
{
    plan.wanted.routes = request.routes;
    if (earlier.name.empty()) {
        plan.added.routes = request.routes;
        return;
    }
    plan.added.routes = without(request.routes, ownRoutesOf(mSocket, plan.wanted.index));
    plan.dropped.routes = without(earlier.routes, sorted(request.routes));
}

// The new settings replace those that are set; those of another resolver are undone.
void InterfaceControl::planDns(const InterfaceRequest& request, const InterfaceRecord& earlier, Plan& plan)
{
    if (!request.dns.empty()) {
        plan.wanted.dns = {mDns.prepare({plan.wanted.index, request.ifName}, request.dns, earlier.dns)};
    }
    plan.added.dns = plan.wanted.dns;
    std::copy_if(earlier.dns.begin(), earlier.dns.end(), std::back_inserter(plan.dropped.dns),
                 [&](const std::string& line) {
                     return plan.wanted.dns.empty() || !Dns::usesSameResolver(plan.wanted.dns.front(), line);
                 });
}

// New routes are added before old ones are removed, so that every packet finds one. DNS is last, when nothing else can
// fail.
void InterfaceControl::carryOut(const InterfaceRequest& request, Plan& plan)
{
    if (const auto failure = mInstalled.install(plan.added)) refuse(*failure, request, plan.added);
    if (!plan.dropped.addresses.empty() || !plan.dropped.routes.empty()) {
        mInstalled.remove(plan.dropped);
        // The kernel removes an interface's routes with its last address. And a gateway may have been reachable only
        // through a dropped route. So the kernel is asked what is missing.
        InterfaceRecord missing = mInstalled.partNotInstalled(plan.wanted);
        const std::vector<Route> ways = onePerGateway(plan.wanted.routes);
        missing.routes.insert(missing.routes.end(), ways.begin(), ways.end());
        if (const auto failure = mInstalled.install(missing)) refuse(*failure, request, missing);
    }
    plan.hasDnsBegun = true;
    for (const std::string& line : plan.added.dns)
        mDns.set({plan.added.index, request.ifName}, request.dns, line, recordCheck(request.ifName, line));
    for (const std::string& line : plan.dropped.dns)
        mDns.undo(line);
}

// Does not throw: what cannot be rolled back stays in the undo log, for the next request or process.
void InterfaceControl::rollBack(const std::string& subject, const Plan& plan, const InterfaceRecord& earlier)
{
    try {
        if (plan.hasDnsBegun) rollBackDns(plan, earlier);
        mInstalled.remove(plan.added);
        if (earlier.name.empty()) return forget(subject, plan.added);
        if (const auto failure = mInstalled.install(mInstalled.partNotInstalled(earlier)))
            throw RequestError("netlink", failure->reason());
        mUndoLog.write(subject, earlier.encode());
    } catch (const std::exception& error) {
        VKNETCONFIG_ERROR("%s: rolling back: %s", subject.c_str(), error.what());
    }
}

// Settings that replaced earlier ones are replaced by those again; others are undone.
void InterfaceControl::rollBackDns(const Plan& plan, const InterfaceRecord& earlier)
{
    for (const std::string& line : plan.added.dns) {
        if (earlier.dns.empty() || !Dns::usesSameResolver(line, earlier.dns.front())) mDns.undo(line);
    }
    if (earlier.dns.empty()) return;
    mDns.setAgain(earlier.dns.front(), recordCheck(earlier.name, earlier.dns.front()));
}

// The request has succeeded: an undo log that names too much does no harm.
void InterfaceControl::commitUndoLog(const std::string& subject, const Plan& plan, const InterfaceRecord& earlier)
{
    if (earlier.name.empty()) return;
    try {
        mUndoLog.write(subject, unionOf(plan.wanted, {}, pendingPart(plan.dropped).dns).encode());
    } catch (const std::exception& error) {
        VKNETCONFIG_WARNING("%s: the earlier configuration stays in the undo log: %s", subject.c_str(), error.what());
    }
}

// Erases from the undo log what has been removed. DNS settings whose removal is pending stay in it, without an owner,
// for the next request of any process.
void InterfaceControl::forget(const std::string& subject, const InterfaceRecord& record)
{
    const InterfaceRecord pending = pendingPart(record);
    if (pending.name.empty()) return mUndoLog.erase(subject);
    mUndoLog.write(subject, pending.encode());
    mUndoLog.release(subject);
}

InterfaceRecord InterfaceControl::pendingPart(const InterfaceRecord& record) const
{
    InterfaceRecord pending;
    std::copy_if(record.dns.begin(), record.dns.end(), std::back_inserter(pending.dns),
                 [this](const std::string& line) { return mDns.isPending(line); });
    if (pending.dns.empty()) return {};
    pending.index = record.index;
    pending.name = record.name;
    return pending;
}

// DNS settings are maintained for as long as the undo log has them.
std::function<bool()> InterfaceControl::recordCheck(const std::string& ifName, const std::string& dns) const
{
    return mUndoLog.lineCheck(subjectOf(ifName), "dns " + dns);
}

// Removes what is still there and still ours.
void InterfaceControl::removeInstalled(const InterfaceRecord& record)
{
    StepErrors errors;
    for (const std::string& line : record.dns)
        errors.attempt([&] { mDns.undo(line); });
    errors.attempt([&] { mInstalled.remove(record); });
    errors.throwFirst();
}

}  // namespace vknetconfig
