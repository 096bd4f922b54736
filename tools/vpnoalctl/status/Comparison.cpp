// SPDX-License-Identifier: Apache-2.0
#include "status/Comparison.h"

#include <fmt/format.h>

#include <algorithm>
#include <initializer_list>
#include <iterator>

#include "tunnel/FilterState.h"
#include "tunnel/TunDevice.h"
#include "undolog/Subjects.h"

namespace vpnoalctl {

namespace {

std::string joined(const std::vector<std::string>& parts)
{
    std::string text;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i != 0) text += i + 1 == parts.size() ? " and " : ", ";
        text += parts[i];
    }
    return text;
}

// " of eth0"; of the tunnel nothing is said.
std::string ownerSuffix(const std::string& ifName)
{
    return ifName == tunnelDeviceName ? "" : " of " + ifName;
}

template <class Values>
std::size_t countMissing(const Values& values)
{
    return static_cast<std::size_t>(
        std::count_if(values.begin(), values.end(), [](const auto& one) { return !one.isThere; }));
}

struct Noun {
    const char* one;
    const char* many;
};

void addMissing(std::vector<std::string>& faults, std::size_t count, Noun noun, const std::string& ifName)
{
    if (count == 0) return;
    faults.push_back(fmt::format("{} {}{} {} missing", count, count == 1 ? noun.one : noun.many, ownerSuffix(ifName),
                                 count == 1 ? "is" : "are"));
}

template <class Value>
std::vector<Compared<Value>> comparedWith(const std::vector<Value>& wanted,
                                          bool (*isThere)(const FoundInterface&, const Value&),
                                          const FoundInterface* found)
{
    std::vector<Compared<Value>> compared;
    compared.reserve(wanted.size());
    for (const Value& value : wanted)
        compared.push_back({value, found != nullptr && isThere(*found, value)});
    return compared;
}

bool hasAddress(const FoundInterface& found, const wfoal::InterfaceAddress& address)
{
    return std::find(found.addresses.begin(), found.addresses.end(), address) != found.addresses.end();
}

bool hasRoute(const FoundInterface& found, const wfoal::Route& route)
{
    return std::binary_search(found.routes.begin(), found.routes.end(), route);
}

// An interface that got the index later has another name.
const FoundInterface* interfaceOf(const wfoal::InterfaceRecord& record, const KernelState& kernel)
{
    const auto found = kernel.interfaces.find(record.index);
    return found != kernel.interfaces.end() && found->second.name == record.name ? &found->second : nullptr;
}

InterfaceStatus compareInterface(const InstalledInterface& installed, const KernelState& kernel, const DnsStates& dns)
{
    const wfoal::InterfaceRecord& record = installed.record;
    InterfaceStatus status;
    status.name = record.name;
    status.owner = installed.owner;
    const FoundInterface* const found = interfaceOf(record, kernel);
    if (found != nullptr) {
        status.found = *found;
        std::copy_if(found->addresses.begin(), found->addresses.end(), std::back_inserter(status.otherAddresses),
                     [&record](const wfoal::InterfaceAddress& one) {
                         return std::find(record.addresses.begin(), record.addresses.end(), one) ==
                                record.addresses.end();
                     });
    }
    status.addresses = comparedWith(record.addresses, hasAddress, found);
    status.routes = comparedWith(record.routes, hasRoute, found);
    if (record.dns.empty()) return status;
    // Further lines are of earlier settings, whose removal is pending.
    const auto state = dns.find(record.dns.front());
    if (state != dns.end()) status.dns = state->second;
    status.isRemovalPending = installed.owner.state == Owner::State::None && record.addresses.empty() &&
                              record.routes.empty() && !record.linkBefore;
    return status;
}

void addFaults(std::vector<std::string>& faults, const InterfaceStatus& status)
{
    if (status.isRemovalPending) {
        faults.push_back(fmt::format("the DNS settings of {} are still to be removed", status.name));
        return;
    }
    if (!status.found) {
        faults.push_back(fmt::format("the interface {} is gone", status.name));
        return;
    }
    if (!status.found->isUp) faults.push_back(fmt::format("{} is down", status.name));
    addMissing(faults, countMissing(status.addresses), {"address", "addresses"}, status.name);
    addMissing(faults, countMissing(status.routes), {"route", "routes"}, status.name);
    if (!status.dns) return;
    if (status.dns->settings.empty() && !status.dns->fault.empty()) {
        faults.push_back(fmt::format("the DNS settings{} are missing", ownerSuffix(status.name)));
    }
    addMissing(faults, countMissing(status.dns->settings), {"DNS setting", "DNS settings"}, status.name);
}

// Why a table of ours does not do what it was installed for; empty when it does.
std::string faultOf(const FilterTable& table, std::initializer_list<const char*> chains, bool isGuard)
{
    if (!table.isOurs) return "is another program's";
    for (const char* const name : chains) {
        const auto chain = table.chains.find(name);
        if (chain == table.chains.end() || (isGuard && !chain->second.rejectsRest)) return "has lost its rules";
    }
    return {};
}

TableStatus compareTable(const std::string& name, const Owner& owner, const KernelState& kernel)
{
    TableStatus status{name, owner, "is missing", 0, {}};
    const auto found = kernel.tables.find(name);
    if (found == kernel.tables.end()) return status;
    for (const auto& [chainName, chain] : found->second.chains)
        status.rules += chain.rules;
    status.counted = found->second.counted;
    status.fault.clear();
    return status;
}

TableStatus compareFilter(const InstalledFilter& installed, const KernelState& kernel)
{
    TableStatus status = compareTable(installed.table, installed.owner, kernel);
    if (!status.fault.empty()) return status;
    status.fault =
        faultOf(kernel.tables.at(installed.table), {wfoal::inputChain, wfoal::outputChain, wfoal::forwardChain}, false);
    return status;
}

TableStatus compareGuard(const InstalledGuard& installed, const KernelState& kernel)
{
    const std::string table = wfoal::guardTable(installed.rules.ifName);
    TableStatus status = compareTable(table, installed.owner, kernel);
    if (!status.fault.empty()) return status;
    status.fault = faultOf(kernel.tables.at(table), {wfoal::outputChain, wfoal::forwardChain}, true);
    return status;
}

void addFault(std::vector<std::string>& faults, const std::string& what, const TableStatus& table)
{
    if (!table.fault.empty()) faults.push_back(what + " " + table.fault);
}

template <class Entries, class Name>
bool hasEntry(const Entries& entries, Name name)
{
    return std::any_of(entries.begin(), entries.end(), name);
}

// The tunnel's tables can outlive an undo log that somebody has removed.
void addForgotten(Status& status, const KernelState& kernel)
{
    const auto isForgotten = [&](const std::string& table) {
        const auto found = kernel.tables.find(table);
        if (found == kernel.tables.end() || !found->second.isOurs) return false;
        return !hasEntry(status.filters, [&](const TableStatus& one) { return one.name == table; }) &&
               !hasEntry(status.guards, [&](const GuardStatus& one) { return one.table.name == table; });
    };
    for (const std::string& table : {std::string(tunnelFilter), wfoal::guardTable(tunnelDeviceName)}) {
        if (isForgotten(table)) status.faults.push_back("the undo log has no entry of the table " + table);
    }
}

struct OwnedBy {
    const Owner* owner;
    bool isKept;  // until a request for the interface itself
};

void addNotes(Status& status)
{
    std::vector<OwnedBy> owners;
    for (const InterfaceStatus& one : status.interfaces)
        owners.push_back({&one.owner, false});
    for (const TableStatus& one : status.filters)
        owners.push_back({&one.owner, false});
    for (const GuardStatus& one : status.guards)
        owners.push_back({&one.table.owner, one.rules.rejectsIpv4});
    for (const auto& [owner, isKept] : owners) {
        if (owner->state != Owner::State::Ended) continue;
        std::string note = fmt::format(
            "the owner, process {}, has ended; {}", owner->process,
            isKept ? "'vpnoalctl restore' removes the guard" : "the next request or 'vpnoalctl restore' removes it");
        if (std::find(status.notes.begin(), status.notes.end(), note) == status.notes.end()) {
            status.notes.push_back(std::move(note));
        }
    }
}

}  // namespace

std::vector<std::string> tablesOf(const Installed& installed)
{
    std::vector<std::string> tables{tunnelFilter, wfoal::guardTable(tunnelDeviceName)};
    for (const InstalledFilter& filter : installed.filters)
        tables.push_back(filter.table);
    for (const InstalledGuard& guard : installed.guards)
        tables.push_back(wfoal::guardTable(guard.rules.ifName));
    std::sort(tables.begin(), tables.end());
    tables.erase(std::unique(tables.begin(), tables.end()), tables.end());
    return tables;
}

Status compare(const Installed& installed, const KernelState& kernel, const DnsStates& dns)
{
    Status status;
    status.faults = installed.faults;
    for (const InstalledInterface& one : installed.interfaces) {
        status.interfaces.push_back(compareInterface(one, kernel, dns));
        addFaults(status.faults, status.interfaces.back());
    }
    for (const InstalledFilter& one : installed.filters) {
        status.filters.push_back(compareFilter(one, kernel));
        addFault(status.faults, "the packet filter", status.filters.back());
    }
    for (const InstalledGuard& one : installed.guards) {
        status.guards.push_back({compareGuard(one, kernel), one.rules});
        addFault(status.faults, "the guard" + ownerSuffix(one.rules.ifName), status.guards.back().table);
    }
    addForgotten(status, kernel);
    addNotes(status);
    return status;
}

bool isApplied(const Status& status)
{
    return !status.filters.empty() || !status.guards.empty() ||
           hasEntry(status.interfaces, [](const InterfaceStatus& one) { return !one.isRemovalPending; });
}

std::string summaryOf(const Status& status)
{
    std::string text = "nothing is applied";
    if (isApplied(status) && !status.interfaces.empty()) {
        text = "applied";
    } else if (isApplied(status)) {
        std::vector<std::string> parts;
        if (!status.filters.empty()) parts.emplace_back("the packet filter");
        if (!status.guards.empty()) parts.emplace_back("the guard");
        text = fmt::format("only {} {} applied", joined(parts), parts.size() == 1 ? "is" : "are");
    }
    return status.faults.empty() ? text : text + ", but " + joined(status.faults);
}

}  // namespace vpnoalctl
