// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include "Json.h"
#include "kernel/RouteObject.h"
#include "tunnel/BringUp.h"
#include "tunnel/TunDevice.h"

namespace vpnoalctl {

namespace {

constexpr std::size_t mostLines = 10;

std::string describe(const ProfileRoute& route)
{
    const std::string gateway = route.gateway.bits != 0 ? " via " + dotted(route.gateway) : "";
    const std::string metric = route.metric != 0 ? fmt::format(" metric {}", route.metric) : "";
    return withPrefix(route.destination) + gateway + metric;
}

std::string describe(const char* preposition, const Endpoint& endpoint)
{
    if (!endpoint.network && endpoint.port == 0) return {};
    const std::string port = endpoint.port != 0 ? fmt::format(" port {}", endpoint.port) : "";
    return fmt::format(" {} {}{}", preposition, endpoint.network ? withPrefix(*endpoint.network) : "any", port);
}

std::string describe(const FilterRule& rule)
{
    const char* const protocols[] = {"any", "icmp", "tcp", "udp"};
    std::string text = rule.action == FILTER_ACTION_ACCEPT ? "accept" : "drop";
    if (rule.direction != FILTER_DIRECTION_BOTH) {
        text += fmt::format(" {} {}", rule.direction == FILTER_DIRECTION_IN ? "in on" : "out on", rule.interface);
    }
    text += fmt::format(" {}", protocols[rule.protocol]);
    return text + describe("from", rule.source) + describe("to", rule.destination);
}

std::string describe(const std::string& text)
{
    return text;
}

template <class Items>
void addRows(Table& table, const char* what, const Items& items)
{
    for (std::size_t i = 0; i < items.size(); ++i) {
        const Cell heading(i == 0 ? what : "", Style::Title);
        if (i == mostLines && items.size() > mostLines + 1) {
            table.rows.push_back({heading, Cell(fmt::format("and {} more", items.size() - i), Style::Faint)});
            return;
        }
        table.rows.push_back({heading, Cell(describe(items[i]))});
    }
}

void printForPeople(Output& output, const Profile& profile, const char* state)
{
    Table table{{{"what", ""}, {"value", ""}}, {}};
    const auto add = [&table](const char* what, const std::string& value, Style style = Style::Plain) {
        table.rows.push_back({Cell(what, Style::Title), Cell(value, style)});
    };
    add("state", state, Style::Good);
    const TunnelSettings& tunnel = profile.tunnel.value();
    add("interface", fmt::format("{}, MTU {}", tunnelDeviceName, tunnel.mtu));
    add("address", withPrefix(tunnel.address) + (tunnel.peer ? " peer " + dotted(*tunnel.peer) : ""));
    addRows(table, "DNS servers", profile.dnsServers);
    addRows(table, "DNS domains", profile.dnsDomains);
    addRows(table, "routes", profile.routes);
    addRows(table, "filter", profile.filter);
    addRows(table, "outside", textsOf(profile.outside));
    output.table(table);
}

template <class Items>
JsonPtr describeAll(const Items& items)
{
    JsonPtr array = newArray();
    for (const auto& item : items)
        appendText(array, describe(item));
    return array;
}

JsonPtr routesOf(const Profile& profile)
{
    JsonPtr array = newArray();
    for (const ProfileRoute& route : profile.routes)
        append(array, routeObject(route.destination, route.gateway, tunnelDeviceName, route.metric));
    return array;
}

}  // namespace

JsonPtr summaryOf(const Profile& profile)
{
    JsonPtr summary = newObject();
    addText(summary, "interface", tunnelDeviceName);
    const TunnelSettings& tunnel = profile.tunnel.value();
    addText(summary, "address", withPrefix(tunnel.address));
    if (tunnel.peer) addText(summary, "peer", dotted(*tunnel.peer));
    addNumber(summary, "mtu", tunnel.mtu);
    addChild(summary, "dnsServers", describeAll(profile.dnsServers));
    addChild(summary, "dnsDomains", describeAll(profile.dnsDomains));
    addChild(summary, "routes", routesOf(profile));
    addChild(summary, "filter", describeAll(profile.filter));
    if (!isEmpty(profile.outside)) addChild(summary, "outside", describeAll(textsOf(profile.outside)));
    return summary;
}

void printSummary(Output& output, const Profile& profile, const char* state)
{
    if (!output.json()) return printForPeople(output, profile, state);
    const JsonPtr summary = newObject();
    addText(summary, "state", state);
    addAll(summary, summaryOf(profile));
    output.value(summary);
}

}  // namespace vpnoalctl
