// SPDX-License-Identifier: Apache-2.0
//
// DNS of OpenVPN: the options of --dns, which have variables of their own, and "dhcp-option" ones.
#include <arpa/inet.h>

#include <algorithm>

#include "openvpn/OpenVpnTunnel.h"
#include "text/Excerpt.h"
#include "text/Names.h"

namespace vpnoalctl {

namespace {

bool isIpv6(std::string_view text)
{
    in6_addr address{};
    return inet_pton(AF_INET6, std::string(text).c_str(), &address) == 1;
}

void addOnce(std::vector<std::string>& texts, std::string text)
{
    if (std::find(texts.begin(), texts.end(), text) == texts.end()) texts.push_back(std::move(text));
}

void addServer(const std::string& name, std::string_view text, OpenVpnTunnel& tunnel)
{
    if (isIpv6(text)) {
        addOnce(tunnel.notApplied, "the DNS server " + std::string(text));
        return;
    }
    const auto address = wfoal::parseDottedAddress(text);
    if (!address) throw VariableError(name, wfoal::excerpt(text) + " is no address of a DNS server");
    const std::uint32_t first = address->number() >> 24;
    if (first == 0 || first == 127 || first >= 224) {
        throw VariableError(name, dotted(*address) + " is no address of a DNS server in the tunnel");
    }
    addOnce(tunnel.dnsServers, dotted(*address));
}

void addDomain(const std::string& name, std::string_view text, OpenVpnTunnel& tunnel)
{
    if (text.size() > 1 && text.back() == '.') text.remove_suffix(1);
    const wfoal::Check checked = wfoal::checkDomainName(text);
    if (!checked) throw VariableError(name, checked.reason());
    addOnce(tunnel.dnsDomains, std::string(text));
}

// Only plain DNS on its own port can be asked for.
void requirePlain(const ScriptVariables& variables, const std::string& server, const std::string& address)
{
    const std::string transport = server + "transport";
    const auto kind = variables.find(transport);
    if (kind && kind != "plain") {
        throw VariableError(transport, wfoal::excerpt(*kind) + " is not supported, only \"plain\" is");
    }
    const std::string port = server + "port_" + address;
    const auto number = variables.wholeNumber(port, 1, 65535);
    if (number && *number != 53) throw VariableError(port, "only port 53 is supported");
}

// Servers may have numbers from -128 to 127; the lowest comes first.
void readServerOptions(const ScriptVariables& variables, OpenVpnTunnel& tunnel)
{
    for (int number = -128; number <= 127; ++number) {
        const std::string server = "dns_server_" + std::to_string(number) + "_";
        for (const unsigned int n : variables.numbersOf(server + "address_", mostDnsEntries)) {
            requirePlain(variables, server, std::to_string(n));
            const std::string name = server + "address_" + std::to_string(n);
            addServer(name, variables.valueOf(name), tunnel);
        }
        for (const unsigned int n : variables.numbersOf(server + "resolve_domain_", mostDnsEntries)) {
            const std::string name = server + "resolve_domain_" + std::to_string(n);
            addDomain(name, variables.valueOf(name), tunnel);
        }
        if (variables.valueOf(server + "dnssec") == "yes") addOnce(tunnel.notApplied, "DNSSEC");
    }
    for (const unsigned int n : variables.numbersOf("dns_search_domain_", mostDnsEntries)) {
        const std::string name = "dns_search_domain_" + std::to_string(n);
        addDomain(name, variables.valueOf(name), tunnel);
    }
}

std::string_view takeWord(std::string_view& rest)
{
    const std::size_t begin = std::min(rest.find_first_not_of(' '), rest.size());
    const std::size_t end = std::min(rest.find(' ', begin), rest.size());
    const std::string_view word = rest.substr(begin, end - begin);
    rest.remove_prefix(end);
    return word;
}

// "dhcp-option DNS 10.8.0.1". With a server of --dns its servers replace these, as in OpenVPN itself.
void readForeignOption(const std::string& name, std::string_view text, bool hasServers, OpenVpnTunnel& tunnel)
{
    std::string_view rest = text;
    if (takeWord(rest) != "dhcp-option") {
        addOnce(tunnel.notApplied, "the option " + wfoal::excerpt(text));
        return;
    }
    const std::string_view kind = takeWord(rest);
    const std::string_view value = takeWord(rest);
    if (kind == "DNS" || kind == "DNS6") {
        if (!hasServers) addServer(name, value, tunnel);
    } else if (kind == "DOMAIN" || kind == "DOMAIN-SEARCH" || kind == "ADAPTER_DOMAIN_SUFFIX") {
        addDomain(name, value, tunnel);
    } else {
        addOnce(tunnel.notApplied, "the option " + wfoal::excerpt(text));
    }
}

}  // namespace

void readDns(const ScriptVariables& variables, OpenVpnTunnel& tunnel)
{
    readServerOptions(variables, tunnel);
    const bool hasServers = !tunnel.dnsServers.empty();
    for (const unsigned int number : variables.numbersOf("foreign_option_", 2 * mostDnsEntries)) {
        const std::string name = "foreign_option_" + std::to_string(number);
        readForeignOption(name, variables.valueOf(name), hasServers, tunnel);
    }
}

}  // namespace vpnoalctl
