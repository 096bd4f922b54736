// SPDX-License-Identifier: Apache-2.0
//
// A change is written as "INDEX NAME SERVERS DOMAINS DEFAULT SERVERS DOMAINS DEFAULT": first what was set, then what
// was before. Lists have commas and are "-" when empty. A server is ADDRESS/PORT/NAME, a domain "~NAME" when it is not
// searched, a default route "yes" or "no". Names come from systemd-resolved, which escapes whatever is no letter,
// digit, hyphen, underscore or dot.
#include "resolved/LinkDns.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <optional>

#include "json/JsonError.h"
#include "text/Excerpt.h"

namespace wfoal {

namespace {

void append(std::vector<DnsServer>& servers, DnsServer server)
{
    if (std::find(servers.begin(), servers.end(), server) == servers.end()) servers.push_back(std::move(server));
}

// systemd-resolved has each name once; one that is searched chooses the link as well.
void append(std::vector<DnsDomain>& domains, DnsDomain domain)
{
    const auto same = [&domain](const DnsDomain& known) { return known.name == domain.name; };
    const auto known = std::find_if(domains.begin(), domains.end(), same);
    if (known == domains.end()) {
        domains.push_back(std::move(domain));
    } else if (!domain.routeOnly) {
        known->routeOnly = false;
    }
}

DnsDomain domainOf(std::string_view text)
{
    DnsDomain domain;
    if (!text.empty() && text.front() == '~') {
        domain.routeOnly = true;
        text.remove_prefix(1);
    }
    if (text.size() > 1 && text.back() == '.') text.remove_suffix(1);
    domain.name = text;
    std::transform(domain.name.begin(), domain.name.end(), domain.name.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return domain;
}

[[noreturn]] void refuse(std::string_view text)
{
    throw JsonError("undo log", "no DNS settings: " + excerpt(text));
}

// The next part of a text that a separator ends; none when nothing is left.
std::optional<std::string_view> next(std::string_view& rest, char separator)
{
    if (rest.data() == nullptr) return std::nullopt;
    const std::size_t end = rest.find(separator);
    const std::string_view part = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    return part;
}

std::string_view word(std::string_view& rest)
{
    const auto found = next(rest, ' ');
    if (!found || found->empty()) refuse(rest);
    return *found;
}

template <class Number>
Number number(std::string_view text)
{
    Number value{};
    const auto [after, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || after != text.data() + text.size()) refuse(text);
    return value;
}

std::string textOf(const DnsServer& server)
{
    char address[INET6_ADDRSTRLEN] = {};
    inet_ntop(server.family, server.address.data(), address, sizeof address);
    return std::string(address) + "/" + std::to_string(server.port) + "/" + server.name;
}

std::string textOf(const DnsDomain& domain)
{
    return (domain.routeOnly ? "~" : "") + domain.name;
}

DnsServer serverFrom(std::string_view text)
{
    std::string_view rest = text;
    const auto address = next(rest, '/');
    const auto port = next(rest, '/');
    const auto name = next(rest, '/');
    if (!name || rest.data() != nullptr) refuse(text);
    DnsServer server;
    server.family = address->find(':') == std::string_view::npos ? AF_INET : AF_INET6;
    server.address.resize(server.family == AF_INET ? 4 : 16);
    if (inet_pton(server.family, std::string(*address).c_str(), server.address.data()) != 1) refuse(text);
    server.port = number<std::uint16_t>(*port);
    server.name = *name;
    return server;
}

template <class Element>
std::string listOf(const std::vector<Element>& elements)
{
    if (elements.empty()) return "-";
    std::string text;
    for (const Element& element : elements)
        text += (text.empty() ? "" : ",") + textOf(element);
    return text;
}

template <class Element>
std::vector<Element> listFrom(std::string_view text, Element (*read)(std::string_view))
{
    std::vector<Element> elements;
    if (text == "-") return elements;
    while (const auto part = next(text, ','))
        elements.push_back(read(*part));
    return elements;
}

// No resolver has a name without letters, or with an empty label at its end.
DnsDomain domainFrom(std::string_view text)
{
    DnsDomain domain = domainOf(text);
    if (domain.name.empty() || domainOf(domain.name).name != domain.name) refuse(text);
    return domain;
}

std::string textOf(const LinkDns& dns)
{
    return listOf(dns.servers) + " " + listOf(dns.domains) + (dns.defaultRoute ? " yes" : " no");
}

LinkDns dnsFrom(std::string_view& rest)
{
    LinkDns dns;
    dns.servers = listFrom(word(rest), serverFrom);
    dns.domains = listFrom(word(rest), domainFrom);
    const std::string_view route = word(rest);
    if (route != "yes" && route != "no") refuse(route);
    dns.defaultRoute = route == "yes";
    return dns;
}

}  // namespace

bool operator==(const DnsServer& left, const DnsServer& right)
{
    return left.family == right.family && left.address == right.address && left.port == right.port &&
           left.name == right.name;
}

bool operator==(const DnsDomain& left, const DnsDomain& right)
{
    return left.name == right.name && left.routeOnly == right.routeOnly;
}

bool operator==(const LinkDns& left, const LinkDns& right)
{
    return left.servers == right.servers && left.domains == right.domains && left.defaultRoute == right.defaultRoute;
}

LinkDns resolvedSettingsFor(const DnsSettings& settings)
{
    LinkDns wanted;
    for (const Ipv4Address address : settings.servers) {
        const std::string bytes(reinterpret_cast<const char*>(&address.bits), sizeof address.bits);
        append(wanted.servers, DnsServer{AF_INET, bytes, 0, {}});
    }
    for (const std::string& name : settings.domains)
        append(wanted.domains, domainOf(name));
    if (settings.allTraffic && !wanted.servers.empty()) append(wanted.domains, DnsDomain{".", true});
    wanted.defaultRoute = settings.allTraffic || settings.domains.empty();
    return wanted;
}

std::string LinkChange::encode() const
{
    return std::to_string(link.index) + " " + link.name + " " + textOf(set) + " " + textOf(before);
}

LinkChange LinkChange::decode(std::string_view text)
{
    LinkChange change;
    std::string_view rest = text;
    change.link.index = number<int>(word(rest));
    change.link.name = word(rest);
    change.set = dnsFrom(rest);
    change.before = dnsFrom(rest);
    if (rest.data() != nullptr) refuse(text);
    return change;
}

LinkDns stateAfterUndo(const LinkChange& change, const LinkDns& now)
{
    LinkDns target = now;
    if (now.servers == change.set.servers) target.servers = change.before.servers;
    if (now.domains == change.set.domains) target.domains = change.before.domains;
    if (now.defaultRoute == change.set.defaultRoute) target.defaultRoute = change.before.defaultRoute;
    return target;
}

}  // namespace wfoal
