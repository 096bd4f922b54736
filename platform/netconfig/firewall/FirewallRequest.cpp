// SPDX-License-Identifier: Apache-2.0
#include "firewall/FirewallRequest.h"

#include <string_view>
#include <tuple>

#include "RequestError.h"
#include "text/Names.h"

namespace vknetconfig {

namespace {

// A word of the request and its value.
template <class Enum>
struct EnumName {
    std::string_view text;
    Enum value;
};

constexpr EnumName<RuleProtocol> protocols[] = {
    {"ICMP", RuleProtocol::Icmp}, {"TCP", RuleProtocol::Tcp}, {"UDP", RuleProtocol::Udp}};
constexpr EnumName<RuleDirection> directions[] = {{"in", RuleDirection::In}, {"out", RuleDirection::Out}};
constexpr EnumName<RuleVerdict> verdicts[] = {{"ACCEPT", RuleVerdict::Accept}, {"DROP", RuleVerdict::Drop}};
constexpr EnumName<bool> operations[] = {{"append", true}};

template <class Enum, std::size_t count>
Enum parseEnum(const JsonValue& value, const EnumName<Enum> (&names)[count])
{
    const std::string_view text = value.text();
    std::string known;
    for (const EnumName<Enum>& name : names) {
        if (name.text == text) return name.value;
    }
    for (const EnumName<Enum>& name : names)
        known += (known.empty() ? "" : ", ") + excerpt(name.text);
    value.refuse(excerpt(text) + " is not one of " + known);
}

// The rules of nft for names; what its grammar uses for itself is left for nft to refuse.
std::string filterName(const JsonValue& value)
{
    constexpr std::size_t longest = 31;
    constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    constexpr std::string_view allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./";
    const std::string_view name = value.text();
    if (name.empty() || name.size() > longest || letters.find(name[0]) == std::string_view::npos ||
        name.find_first_not_of(allowed) != std::string_view::npos) {
        value.refuse(excerpt(name) + " is not a letter and up to 30 letters, digits, '_', '-', '.' and '/'");
    }
    return std::string(name);
}

wfoal::Ipv4Network readNetwork(const JsonValue& value)
{
    const wfoal::Result<wfoal::Ipv4Network> network = wfoal::parseNetwork(value.text());
    if (!network) value.refuse(network.reason());
    return {network->base(), network->prefix};
}

std::uint16_t readPort(const JsonValue& value)
{
    return static_cast<std::uint16_t>(value.wholeNumber(1, 65535));
}

void readInterface(const JsonValue& value, FirewallRule& rule)
{
    require(value, wfoal::checkInterfaceName(value.text()));
    rule.interfaceName = value.text();
}

constexpr JsonField<FirewallRule> ruleFields[] = {
    {"operation", true, [](const JsonValue& value, FirewallRule&) { parseEnum(value, operations); }},
    {"source", false, [](const JsonValue& value, FirewallRule& rule) { rule.source = readNetwork(value); }},
    {"destination", false, [](const JsonValue& value, FirewallRule& rule) { rule.destination = readNetwork(value); }},
    {"protocol", false,
     [](const JsonValue& value, FirewallRule& rule) { rule.protocol = parseEnum(value, protocols); }},
    {"interfaceName", false, readInterface},
    {"interfaceDirection", false,
     [](const JsonValue& value, FirewallRule& rule) { rule.direction = parseEnum(value, directions); }},
    {"sourcePort", false, [](const JsonValue& value, FirewallRule& rule) { rule.sourcePort = readPort(value); }},
    {"destinationPort", false,
     [](const JsonValue& value, FirewallRule& rule) { rule.destinationPort = readPort(value); }},
    {"jumpTo", true, [](const JsonValue& value, FirewallRule& rule) { rule.verdict = parseEnum(value, verdicts); }},
};

FirewallRule readRule(const JsonValue& value)
{
    FirewallRule rule;
    value.readObject(ruleFields, rule);
    const auto refuse = [&value](const char* key, const char* reason) {
        throw RequestError(value.path() + "." + key, reason);
    };
    const bool named = !rule.interfaceName.empty();
    const bool directed = rule.direction != RuleDirection::Any;
    if (named && !directed) refuse("interfaceDirection", "missing beside \"interfaceName\"");
    if (directed && !named) refuse("interfaceName", "missing beside \"interfaceDirection\"");
    if (rule.protocol == RuleProtocol::Icmp) {
        if (rule.sourcePort != 0) refuse("sourcePort", "ICMP has no ports");
        if (rule.destinationPort != 0) refuse("destinationPort", "ICMP has no ports");
    }
    return rule;
}

// The keys of both requests, before it is clear which one it is.
struct RawRequest {
    std::string label;
    std::string chainNew;
    std::string chainDelete;
    std::optional<std::vector<FirewallRule>> rules;
};

constexpr JsonField<RawRequest> requestFields[] = {
    {"label", true, [](const JsonValue& value, RawRequest& raw) { raw.label = filterName(value); }},
    {"chainNew", false, [](const JsonValue& value, RawRequest& raw) { raw.chainNew = filterName(value); }},
    {"chainDelete", false, [](const JsonValue& value, RawRequest& raw) { raw.chainDelete = filterName(value); }},
    {"rules", false,
     [](const JsonValue& value, RawRequest& raw) {
         raw.rules.emplace();
         value.forEach([&raw](const JsonValue& rule, std::size_t) { raw.rules->push_back(readRule(rule)); });
     }},
};

}  // namespace

bool operator==(const FirewallRule& left, const FirewallRule& right)
{
    const auto values = [](const FirewallRule& rule) {
        return std::tie(rule.source, rule.destination, rule.protocol, rule.direction, rule.interfaceName,
                        rule.sourcePort, rule.destinationPort, rule.verdict);
    };
    return values(left) == values(right);
}

bool operator==(const FirewallRequest& left, const FirewallRequest& right)
{
    const auto values = [](const FirewallRequest& request) {
        return std::tie(request.label, request.chain, request.remove, request.rules);
    };
    return values(left) == values(right);
}

FirewallRequest parseFirewallRequest(const char* json)
{
    const JsonDocument document(json);
    RawRequest raw;
    document.root().readObject(requestFields, raw);
    const bool create = !raw.chainNew.empty();
    const bool remove = !raw.chainDelete.empty();
    if (create && remove) throw RequestError("chainDelete", "not together with \"chainNew\"");
    if (!create && !remove) throw RequestError("chainNew", "missing, and no \"chainDelete\" either");
    if (create && !raw.rules) throw RequestError("rules", "missing");
    if (remove && raw.rules) throw RequestError("rules", "not together with \"chainDelete\"");
    FirewallRequest request{std::move(raw.label), std::move(create ? raw.chainNew : raw.chainDelete), remove, {}};
    if (raw.rules) request.rules = std::move(*raw.rules);
    return request;
}

}  // namespace vknetconfig
