// SPDX-License-Identifier: Apache-2.0
#include "status/Report.h"

#include <fmt/format.h>
#include <netinet/in.h>

#include <algorithm>

#include "Json.h"
#include "TimeText.h"
#include "kernel/RouteObject.h"

namespace vpnoalctl {

namespace {

constexpr std::size_t mostLines = 10;

wfoal::Ipv4Network targetOf(const wfoal::Route& route)
{
    return {{route.destination}, route.prefix};
}

std::string describe(const wfoal::InterfaceAddress& address)
{
    return withPrefix(wfoal::Ipv4Network{{address.local}, address.prefix});
}

std::string describe(const wfoal::Route& route)
{
    return routeTarget(targetOf(route)) +
           (route.gateway != 0 ? " via " + dotted(wfoal::Ipv4Address{route.gateway}) : "") +
           (route.metric != 0 ? fmt::format(" metric {}", route.metric) : "");
}

std::string describe(const PacketCount& count)
{
    return fmt::format("{} packets, {} bytes", count.packets, count.bytes);
}

std::string textOf(wfoal::Ipv4Address address)
{
    return dotted(address);
}

std::string textOf(const in6_addr& address)
{
    return wfoal::textOf(address);
}

template <class Network>
std::string describe(const wfoal::Connection<Network>& connection)
{
    return fmt::format("{} {} port {}", connection.protocol == IPPROTO_TCP ? "tcp" : "udp",
                       textOf(connection.address.address), connection.port);
}

std::vector<std::string> rejectedBy(const wfoal::GuardRules& rules)
{
    std::vector<std::string> families;
    if (rules.rejectsIpv4) families.emplace_back("ipv4");
    if (rules.rejectsIpv6) families.emplace_back("ipv6");
    return families;
}

std::vector<std::string> bypassOf(const wfoal::GuardRules& rules)
{
    std::vector<std::string> networks;
    for (const auto& network : rules.bypass.ipv4)
        networks.push_back(withPrefix(network));
    for (const auto& network : rules.bypass.ipv6)
        networks.push_back(withPrefix(network));
    return networks;
}

std::vector<std::string> connectionsOf(const wfoal::GuardRules& rules)
{
    std::vector<std::string> connections;
    for (const auto& connection : rules.ipv4Connections)
        connections.push_back(describe(connection));
    for (const auto& connection : rules.ipv6Connections)
        connections.push_back(describe(connection));
    return connections;
}

// The table for people.
class Rows {
public:
    void add(const char* what, const std::string& value, const std::string& fault = {})
    {
        const std::string behind = fault.empty() ? "" : " (" + fault + ")";
        mTable.rows.push_back({{what, Style::Title}, {value + behind, fault.empty() ? Style::Plain : Style::Bad}});
    }
    void addChecked(const char* what, const std::string& value, bool isThere)
    {
        add(what, value, isThere ? "" : "is missing");
    }
    void addSummary(const Status& status)
    {
        const bool isWell = status.faults.empty();
        const Style style = !isWell ? Style::Bad : isApplied(status) ? Style::Good : Style::Plain;
        mTable.rows.push_back({{"state", Style::Title}, {summaryOf(status), style}});
    }
    // Of many values the missing ones come first, so that they are seen.
    template <class Value>
    void addAll(const char* what, std::vector<Compared<Value>> values)
    {
        std::stable_partition(values.begin(), values.end(), [](const auto& one) { return !one.isThere; });
        for (std::size_t i = 0; i < values.size(); ++i) {
            const char* const heading = i == 0 ? what : "";
            if (i == mostLines && values.size() > mostLines + 1) {
                return add(heading, fmt::format("and {} more", values.size() - i));
            }
            addChecked(heading, describe(values[i].value), values[i].isThere);
        }
    }
    // Only where it changes.
    void addOwner(const Owner& owner)
    {
        if (owner.state == Owner::State::None || (mHasOwner && owner.process == mOwner)) return;
        mHasOwner = true;
        mOwner = owner.process;
        const std::string program = owner.program.empty() ? "" : fmt::format(" ({})", owner.program);
        const char* const end = owner.state == Owner::State::Ended ? ", which has ended" : "";
        add("owner", fmt::format("process {}{}, since {}{}", owner.process, program, timeForPeople(owner.since), end));
    }
    const Table& table() const { return mTable; }

private:
    Table mTable{{{"what", ""}, {"value", ""}}, {}};
    bool mHasOwner = false;
    pid_t mOwner = 0;
};

void addRows(Rows& rows, const DnsState& dns)
{
    if (dns.settings.empty()) return rows.add("DNS", dns.resolver, dns.fault);
    for (const DnsSetting& setting : dns.settings)
        rows.addChecked("DNS", fmt::format("{} {}", setting.kind, setting.value), setting.isThere);
    if (!dns.fault.empty()) rows.add("", dns.resolver, dns.fault);
}

void addRows(Rows& rows, const InterfaceStatus& status)
{
    rows.addOwner(status.owner);
    if (status.found) {
        const FoundInterface& found = *status.found;
        rows.add("interface", fmt::format("{}, MTU {}", status.name, found.mtu), found.isUp ? "" : "is down");
        rows.add("received", describe(found.received));
        rows.add("sent", describe(found.sent));
    } else {
        rows.add("interface", status.name, "is gone");
    }
    rows.addAll("address", status.addresses);
    for (const wfoal::InterfaceAddress& address : status.otherAddresses)
        rows.add("address", describe(address));
    rows.addAll("route", status.routes);
    if (status.dns) addRows(rows, *status.dns);
}

void addRows(Rows& rows, const char* what, const TableStatus& table)
{
    rows.addOwner(table.owner);
    rows.add(what, fmt::format("table {}, {} rules", table.name, table.rules), table.fault);
    if (table.counted) rows.add("", describe(*table.counted));
}

void addRows(Rows& rows, const GuardStatus& guard)
{
    addRows(rows, "guard", guard.table);
    for (const std::string& family : rejectedBy(guard.rules))
        rows.add("", fmt::format("rejects {} beside {}", family == "ipv4" ? "IPv4" : "IPv6", guard.rules.ifName));
    for (const std::string& network : bypassOf(guard.rules))
        rows.add("", "lets through " + network);
    for (const std::string& connection : connectionsOf(guard.rules))
        rows.add("", "lets through " + connection);
}

JsonPtr ownerToJson(const Owner& owner)
{
    JsonPtr object = newObject();
    const bool lives = owner.state == Owner::State::Lives;
    addText(object, "state", lives ? "running" : owner.state == Owner::State::Ended ? "ended" : "none");
    if (owner.process != 0) addNumber(object, "process", owner.process);
    if (!owner.program.empty()) addText(object, "program", validUtf8(owner.program));
    if (owner.since != 0) addText(object, "since", timeForMachines(owner.since));
    return object;
}

JsonPtr countToJson(const PacketCount& count)
{
    JsonPtr object = newObject();
    addNumber(object, "packets", static_cast<std::int64_t>(count.packets));
    addNumber(object, "bytes", static_cast<std::int64_t>(count.bytes));
    return object;
}

JsonPtr textsToJson(const std::vector<std::string>& texts)
{
    JsonPtr array = newArray();
    for (const std::string& text : texts)
        appendText(array, validUtf8(text));
    return array;
}

JsonPtr dnsToJson(const DnsState& dns)
{
    JsonPtr object = newObject();
    addText(object, "resolver", dns.resolver);
    if (!dns.fault.empty()) addText(object, "fault", validUtf8(dns.fault));
    JsonPtr settings = newArray();
    for (const DnsSetting& setting : dns.settings) {
        JsonPtr one = newObject();
        addText(one, "kind", setting.kind);
        addText(one, "value", validUtf8(setting.value));
        addFlag(one, "present", setting.isThere);
        append(settings, std::move(one));
    }
    addChild(object, "settings", std::move(settings));
    return object;
}

JsonPtr addressToJson(const wfoal::InterfaceAddress& address, bool isThere, bool isInstalled)
{
    JsonPtr object = newObject();
    addText(object, "local", dotted(wfoal::Ipv4Address{address.local}));
    addNumber(object, "prefixlen", address.prefix);
    addFlag(object, "present", isThere);
    addFlag(object, "installed", isInstalled);
    return object;
}

JsonPtr interfaceToJson(const InterfaceStatus& status)
{
    JsonPtr object = newObject();
    addText(object, "dev", status.name);
    addChild(object, "owner", ownerToJson(status.owner));
    addFlag(object, "present", status.found.has_value());
    if (status.found) {
        addFlag(object, "up", status.found->isUp);
        addNumber(object, "mtu", status.found->mtu);
        addChild(object, "received", countToJson(status.found->received));
        addChild(object, "sent", countToJson(status.found->sent));
    }
    JsonPtr addresses = newArray();
    for (const auto& [address, isThere] : status.addresses)
        append(addresses, addressToJson(address, isThere, true));
    for (const wfoal::InterfaceAddress& address : status.otherAddresses)
        append(addresses, addressToJson(address, true, false));
    addChild(object, "addresses", std::move(addresses));
    JsonPtr routes = newArray();
    for (const auto& [route, isThere] : status.routes) {
        JsonPtr one = routeObject(targetOf(route), {route.gateway}, status.name, route.metric);
        addFlag(one, "present", isThere);
        append(routes, std::move(one));
    }
    addChild(object, "routes", std::move(routes));
    if (status.dns) addChild(object, "dns", dnsToJson(*status.dns));
    return object;
}

JsonPtr filterToJson(const TableStatus& table)
{
    JsonPtr object = newObject();
    addText(object, "table", table.name);
    addChild(object, "owner", ownerToJson(table.owner));
    addFlag(object, "present", table.fault.empty());
    if (!table.fault.empty()) addText(object, "fault", table.fault);
    addNumber(object, "rules", static_cast<std::int64_t>(table.rules));
    if (table.counted) addChild(object, "counted", countToJson(*table.counted));
    return object;
}

JsonPtr guardToJson(const GuardStatus& guard)
{
    JsonPtr object = filterToJson(guard.table);
    addText(object, "dev", guard.rules.ifName);
    addChild(object, "rejects", textsToJson(rejectedBy(guard.rules)));
    addChild(object, "bypass", textsToJson(bypassOf(guard.rules)));
    addChild(object, "connections", textsToJson(connectionsOf(guard.rules)));
    return object;
}

template <class Values, class Convert>
JsonPtr arrayOf(const Values& values, Convert convert)
{
    JsonPtr array = newArray();
    for (const auto& value : values)
        append(array, convert(value));
    return array;
}

}  // namespace

JsonPtr statusToJson(const Status& status)
{
    JsonPtr object = newObject();
    addText(object, "state", !status.faults.empty() ? "incomplete" : isApplied(status) ? "applied" : "none");
    addText(object, "summary", validUtf8(summaryOf(status)));
    addChild(object, "faults", textsToJson(status.faults));
    addChild(object, "notes", textsToJson(status.notes));
    addChild(object, "interfaces", arrayOf(status.interfaces, interfaceToJson));
    addChild(object, "filters", arrayOf(status.filters, filterToJson));
    addChild(object, "guards", arrayOf(status.guards, guardToJson));
    return object;
}

void printStatus(Output& output, const Status& status)
{
    if (output.json()) return output.value(statusToJson(status));
    Rows rows;
    rows.addSummary(status);
    for (const InterfaceStatus& one : status.interfaces)
        addRows(rows, one);
    for (const TableStatus& one : status.filters)
        addRows(rows, "filter", one);
    for (const GuardStatus& one : status.guards)
        addRows(rows, one);
    output.table(rows.table());
    for (const std::string& note : status.notes)
        output.line(note, Style::Warning);
}

}  // namespace vpnoalctl
