// SPDX-License-Identifier: Apache-2.0
#include "NftText.h"

#include <charconv>

using namespace vknetconfig;

namespace testsupport {

namespace {

// Names of chains in requests begin with a letter, so these are never one of them.
constexpr std::string_view baseChains[][2] = {{"_input", "input"}, {"_output", "output"}, {"_forward", "forward"}};

void appendNumber(std::string& text, unsigned number)
{
    char digits[10];
    const auto result = std::to_chars(digits, digits + sizeof digits, number);
    text.append(digits, result.ptr);
}

void appendInterface(std::string& text, const FirewallRule& rule)
{
    if (rule.direction == RuleDirection::Any) return;
    text += rule.direction == RuleDirection::In ? "iifname \"" : "oifname \"";
    text += rule.interfaceName;
    text += "\" ";
}

void appendNetwork(std::string& text, std::string_view field, const std::optional<wfoal::Ipv4Network>& network)
{
    if (!network) return;
    if (network->prefix == 0) {
        text += "meta nfproto ipv4 ";  // any address, but still only IPv4
        return;
    }
    text += field;
    text += dotted(network->address);
    if (network->prefix < 32) {
        text += '/';
        appendNumber(text, network->prefix);
    }
    text += ' ';
}

void appendPort(std::string& text, std::string_view protocol, std::string_view field, std::uint16_t port)
{
    if (port == 0) return;
    text += protocol;
    text += field;
    appendNumber(text, port);
    text += ' ';
}

// `protocol` is TCP or UDP.
void appendPorts(std::string& text, RuleProtocol protocol, const FirewallRule& rule)
{
    const std::string_view name = protocol == RuleProtocol::Tcp ? "tcp" : "udp";
    appendPort(text, name, " sport ", rule.sourcePort);
    appendPort(text, name, " dport ", rule.destinationPort);
}

// Numbers, not names: nft would look each name up in /etc/protocols.
void appendProtocol(std::string& text, RuleProtocol protocol)
{
    if (protocol == RuleProtocol::Any) return;
    text += "meta l4proto ";
    appendNumber(text, protocol == RuleProtocol::Icmp  ? IPPROTO_ICMP
                       : protocol == RuleProtocol::Tcp ? IPPROTO_TCP
                                                       : IPPROTO_UDP);
    text += ' ';
}

void appendLine(std::string& text, const FirewallRule& rule, RuleProtocol protocol)
{
    text += "\t\t";
    appendInterface(text, rule);
    appendNetwork(text, "ip saddr ", rule.source);
    appendNetwork(text, "ip daddr ", rule.destination);
    if (rule.sourcePort != 0 || rule.destinationPort != 0) {
        appendPorts(text, protocol, rule);
    } else {
        appendProtocol(text, protocol);
    }
    text += rule.verdict == RuleVerdict::Accept ? "accept\n" : "drop\n";
}

void appendRule(std::string& text, const FirewallRule& rule)
{
    const bool hasPort = rule.sourcePort != 0 || rule.destinationPort != 0;
    if (hasPort && rule.protocol == RuleProtocol::Any) {
        appendLine(text, rule, RuleProtocol::Tcp);
        appendLine(text, rule, RuleProtocol::Udp);
    } else {
        appendLine(text, rule, rule.protocol);
    }
}

void appendTable(std::string& text, std::string_view begin, std::string_view label)
{
    text += begin;
    text += "table inet ";
    text += label;
}

void appendMark(std::string& text)
{
    text += " {\n\tcomment \"";
    text += "vknetconfig";
    text += "\"\n";
}

}  // namespace

std::string setUpCommands(const FirewallRequest& request)
{
    constexpr std::size_t typicalLine = 80;
    std::string text;
    text.reserve(512 + request.rules.size() * typicalLine);
    // Deleting what is not there would fail the whole, so it is made first.
    appendTable(text, "add ", request.label);
    text += '\n';
    appendTable(text, "delete ", request.label);
    text += '\n';
    appendTable(text, "", request.label);
    appendMark(text);
    text += "\tchain " + request.chain + " {\n";
    for (const FirewallRule& rule : request.rules)
        appendRule(text, rule);
    text += "\t}\n";
    for (const auto& [name, hook] : baseChains) {
        text.append("\tchain ").append(name).append(" {\n\t\ttype filter hook ").append(hook);
        text.append(" priority filter; policy accept;\n\t\tjump ").append(request.chain).append("\n\t}\n");
    }
    text += "}\n";
    return text;
}

}  // namespace testsupport
