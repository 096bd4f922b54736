// SPDX-License-Identifier: Apache-2.0
#include "interface/InstalledConfiguration.h"

#include <algorithm>
#include <cerrno>

#include "RequestError.h"
#include "interface/RecordValues.h"
#include "interface/StepErrors.h"

namespace vknetconfig {

std::optional<NetlinkFailure> InstalledConfiguration::install(const InterfaceRecord& record)
{
    // An equal one that is there already: given twice in the request, or added by another process in this moment.
    NetlinkBatch batch(mSocket, {EEXIST});
    if (record.linkBefore) addLinkUp(batch, record.index);
    for (const InterfaceAddress& address : record.addresses)
        addAddress(batch, record.index, address);
    for (const Route& route : record.routes) {
        if (batch.hasFailed()) break;
        addRoute(batch, record.index, route);
    }
    const std::vector<NetlinkFailure>& failures = batch.finish();
    return failures.empty() ? std::nullopt : std::optional(failures.front());
}

InterfaceRecord InstalledConfiguration::partNotInstalled(const InterfaceRecord& record)
{
    InterfaceRecord missing;
    missing.index = record.index;
    missing.name = record.name;
    const std::optional<LinkState> link = linkWithIndex(mSocket, record.index);
    if (!link || link->name != record.name) return missing;
    if (record.linkBefore && !link->isUp) missing.linkBefore = record.linkBefore;
    const std::vector<AddressFound> found = addressesOf(mSocket, record.index);
    for (const InterfaceAddress& address : record.addresses) {
        if (!hasAddress(found, address)) missing.addresses.push_back(address);
    }
    missing.routes = without(record.routes, ownRoutesOf(mSocket, record.index));
    return missing;
}

bool InstalledConfiguration::isThere(const InterfaceRecord& record)
{
    if (record.name.empty()) return false;
    const std::optional<LinkState> link = linkWithIndex(mSocket, record.index);
    return link && link->name == record.name;
}

InterfaceRecord InstalledConfiguration::installedPart(InterfaceRecord record)
{
    if (!isThere(record)) return record;
    const std::vector<Route> installed = ownRoutesOf(mSocket, record.index);
    const auto isMissing = [&installed](const Route& route) {
        return !std::binary_search(installed.begin(), installed.end(), route);
    };
    record.routes.erase(std::remove_if(record.routes.begin(), record.routes.end(), isMissing), record.routes.end());
    std::vector<InterfaceAddress> addresses;
    for (const AddressFound& found : addressesOf(mSocket, record.index)) {
        if (found.isOurs && contains(record.addresses, found.address)) addresses.push_back(found.address);
    }
    record.addresses = std::move(addresses);
    return record;
}

void InstalledConfiguration::remove(const InterfaceRecord& record)
{
    if (!isThere(record)) return;
    StepErrors errors;
    errors.attempt([&] { removeRoutes(record); });
    errors.attempt([&] { removeAddresses(record); });
    errors.attempt([&] { restoreLink(record); });
    errors.throwFirst();
}

void InstalledConfiguration::removeRoutes(const InterfaceRecord& record)
{
    if (record.routes.empty()) return;
    const std::vector<Route> wanted = sorted(record.routes);
    NetlinkBatch batch(mSocket, {ESRCH, ENODEV});
    for (const Route& route : ownRoutesOf(mSocket, record.index)) {
        if (std::binary_search(wanted.begin(), wanted.end(), route)) removeRoute(batch, record.index, route);
    }
    const std::vector<NetlinkFailure>& failures = batch.finish();
    if (!failures.empty()) throw RequestError("netlink", "removing a route: " + failures.front().reason());
}

void InstalledConfiguration::removeAddresses(const InterfaceRecord& record)
{
    if (record.addresses.empty()) return;
    NetlinkBatch batch(mSocket, {EADDRNOTAVAIL, ENODEV});
    for (const AddressFound& found : addressesOf(mSocket, record.index)) {
        if (found.isOurs && contains(record.addresses, found.address))
            removeAddress(batch, record.index, found.address);
    }
    const std::vector<NetlinkFailure>& failures = batch.finish();
    if (!failures.empty()) throw RequestError("netlink", "removing an address: " + failures.front().reason());
}

void InstalledConfiguration::restoreLink(const InterfaceRecord& record)
{
    if (!record.linkBefore) return;
    const std::optional<LinkState> now = linkWithIndex(mSocket, record.index);
    if (!now) return;
    NetlinkBatch batch(mSocket, {ENODEV});
    addLinkRestore(batch, *record.linkBefore, *now);
    // Only the first message takes the link down; the others tidy up where that makes sense.
    const std::vector<NetlinkFailure>& failures = batch.finish();
    if (now->isUp && !failures.empty() && failures.front().index == 0) {
        throw RequestError("netlink", "taking the link down: " + failures.front().reason());
    }
}

}  // namespace vknetconfig
