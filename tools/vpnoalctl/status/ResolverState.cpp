// SPDX-License-Identifier: Apache-2.0
#include "status/ResolverState.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <sstream>

#include "io/WholeFile.h"
#include "json/JsonError.h"
#include "resolved/ResolvedManager.h"
#include "undolog/DnsLine.h"

namespace vpnoalctl {

namespace {

constexpr char serverKind[] = "server";
constexpr char domainKind[] = "domain";
constexpr char routeKind[] = "default route";

// Where the implementations of resolvconf keep what they were given for an interface.
constexpr const char* resolvconfFolders[] = {"/run/resolvconf/interface", "/run/resolvconf/interfaces",
                                             "/etc/resolvconf/run/interface"};

std::string textOf(const wfoal::DnsServer& server)
{
    char address[INET6_ADDRSTRLEN] = {};
    inet_ntop(server.family, server.address.data(), address, sizeof address);
    return address;
}

std::string textOf(const wfoal::DnsDomain& domain)
{
    return (domain.routeOnly ? "~" : "") + domain.name;
}

template <class Value>
void compareLists(const char* kind, const std::vector<Value>& set, const std::vector<Value>& now,
                  std::vector<DnsSetting>& settings)
{
    for (const Value& value : set)
        settings.push_back({kind, textOf(value), std::find(now.begin(), now.end(), value) != now.end()});
}

DnsState resolvedState(std::string_view text)
{
    DnsState state{"systemd-resolved", {}, {}};
    wfoal::LinkChange change;
    std::optional<wfoal::LinkDns> now;
    try {
        change = wfoal::LinkChange::decode(text);
        now = wfoal::ResolvedManager().read(change.link.index);
        if (!now) state.fault = "systemd-resolved is not running, or does not know the interface";
    } catch (const wfoal::JsonError& error) {
        state.fault = error.what();
    }
    // A setting that nothing has is one that is not there, also where "no" was set.
    wfoal::LinkDns nothing;
    nothing.defaultRoute = !change.set.defaultRoute;
    state.settings = compareDns(change.set, now.value_or(nothing));
    return state;
}

// The undo log does not hold these settings, so the file is all that can be looked for.
DnsState resolvconfState(std::string_view ifName)
{
    DnsState state{"resolvconf", {}, {}};
    const std::string name = wfoal::resolvconfName(ifName);
    for (const char* const folder : resolvconfFolders) {
        const auto text = wfoal::readWhole(fmt::format("{}/{}", folder, name));
        if (!text) continue;
        state.settings = settingsIn(*text);
        return state;
    }
    state.fault = "resolvconf has no entry " + name;
    return state;
}

}  // namespace

std::vector<DnsSetting> compareDns(const wfoal::LinkDns& set, const wfoal::LinkDns& now)
{
    std::vector<DnsSetting> settings;
    compareLists(serverKind, set.servers, now.servers, settings);
    compareLists(domainKind, set.domains, now.domains, settings);
    settings.push_back({routeKind, set.defaultRoute ? "yes" : "no", set.defaultRoute == now.defaultRoute});
    return settings;
}

std::vector<DnsSetting> settingsIn(std::string_view resolvconfFile)
{
    std::vector<DnsSetting> settings;
    std::istringstream lines{std::string(resolvconfFile)};
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string key;
        words >> key;
        if (key != "nameserver" && key != "search") continue;
        for (std::string value; words >> value;)
            settings.push_back({key == "search" ? domainKind : serverKind, value, true});
    }
    return settings;
}

DnsState readDnsState(const std::string& line)
{
    const wfoal::DnsLine parts(line);
    if (parts.word == wfoal::resolvedWord) return resolvedState(parts.rest);
    if (parts.word == wfoal::resolvconfWord) return resolvconfState(parts.rest);
    return {"", "the entry names no resolver that is known", {}};
}

}  // namespace vpnoalctl
