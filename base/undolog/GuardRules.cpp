// SPDX-License-Identifier: Apache-2.0
#include "undolog/GuardRules.h"

#include <charconv>

#include "json/JsonError.h"
#include "text/Excerpt.h"

namespace wfoal {

namespace {

[[noreturn]] void refuse(std::string_view line)
{
    throw JsonError("undo log", "guard: unexpected " + excerpt(line));
}

// The first word of a line; the line keeps what follows it.
std::string_view takeWord(std::string_view& line)
{
    const std::string_view word = line.substr(0, line.find(' '));
    line.remove_prefix(std::min(line.size(), word.size() + 1));
    return word;
}

template <class Number>
Number takeNumber(std::string_view& line)
{
    const std::string_view word = takeWord(line);
    Number number = 0;
    const auto [after, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (error != std::errc() || after != word.data() + word.size()) refuse(word);
    return number;
}

void take(std::string_view text, Ipv4Network& network)
{
    const auto parsed = parseNetwork(text);
    if (!parsed) refuse(text);
    network = *parsed;
}

void take(std::string_view text, Ipv6Network& network)
{
    const auto parsed = parseIpv6Network(text);
    if (!parsed) refuse(text);
    network = *parsed;
}

template <class Network>
std::string lineOf(const Network& network)
{
    return "bypass " + withPrefix(network) + "\n";
}

template <class Network>
std::string lineOf(const Connection<Network>& connection)
{
    return "connection " + std::to_string(connection.protocol) + " " + std::to_string(connection.port) + " " +
           withPrefix(connection.address) + "\n";
}

template <class Network>
void takeConnection(std::string_view line, std::vector<Connection<Network>>& connections)
{
    Connection<Network> connection;
    connection.protocol = takeNumber<std::uint8_t>(line);
    connection.port = takeNumber<std::uint16_t>(line);
    take(line, connection.address);
    connections.push_back(connection);
}

void readLine(std::string_view line, GuardRules& rules)
{
    const std::string_view whole = line;
    const std::string_view word = takeWord(line);
    const bool isIpv6 = line.find(':') != std::string_view::npos;
    if (word == "interface") {
        rules.ifName = line;
    } else if (word == "reject" && (line == "ipv4" || line == "ipv6")) {
        (line == "ipv4" ? rules.rejectsIpv4 : rules.rejectsIpv6) = true;
    } else if (word == "bypass" && isIpv6) {
        take(line, rules.bypass.ipv6.emplace_back());
    } else if (word == "bypass") {
        take(line, rules.bypass.ipv4.emplace_back());
    } else if (word == "connection" && isIpv6) {
        takeConnection(line, rules.ipv6Connections);
    } else if (word == "connection") {
        takeConnection(line, rules.ipv4Connections);
    } else {
        refuse(whole);
    }
}

}  // namespace

std::string GuardRules::encode() const
{
    std::string text = "interface " + ifName + "\n";
    if (rejectsIpv4) text += "reject ipv4\n";
    if (rejectsIpv6) text += "reject ipv6\n";
    for (const auto& network : bypass.ipv4)
        text += lineOf(network);
    for (const auto& network : bypass.ipv6)
        text += lineOf(network);
    for (const auto& connection : ipv4Connections)
        text += lineOf(connection);
    for (const auto& connection : ipv6Connections)
        text += lineOf(connection);
    return text;
}

GuardRules GuardRules::decode(std::string_view text)
{
    GuardRules rules;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        if (end == std::string_view::npos) refuse(text);
        readLine(text.substr(0, end), rules);
        text.remove_prefix(end + 1);
    }
    if (rules.ifName.empty()) refuse("end of the text");
    return rules;
}

}  // namespace wfoal
