// SPDX-License-Identifier: Apache-2.0
//
// One line each: "interface INDEX NAME", "link MODE QUEUEING", "address LOCAL/PREFIX",
// "route DESTINATION/PREFIX GATEWAY METRIC", "dns TEXT", "end". Addresses are the network-order address read as a host
// integer, in hex, as in requests, because that is fast for ten thousand routes.
#include "undolog/InterfaceRecord.h"

#include <algorithm>
#include <charconv>

#include "json/JsonError.h"

namespace wfoal {

namespace {

constexpr std::size_t longestRoute = 48;

class LineWriter {
public:
    explicit LineWriter(std::string& text) : mText(text) {}
    LineWriter& word(std::string_view word)
    {
        mText += word;
        return *this;
    }
    template <class Number>
    LineWriter& number(Number value, int base = 10)
    {
        char digits[24];
        const auto result = std::to_chars(digits, digits + sizeof digits, value, base);
        mText.append(digits, result.ptr);
        return *this;
    }

private:
    std::string& mText;
};

class LineReader {
public:
    explicit LineReader(std::string_view line) : mLeft(line) {}
    std::string_view word()
    {
        const std::size_t end = std::min(mLeft.find(' '), mLeft.size());
        const std::string_view word = mLeft.substr(0, end);
        mLeft.remove_prefix(std::min(end + 1, mLeft.size()));
        return word;
    }
    template <class Number>
    Number number(int base = 10)
    {
        Number value{};
        const auto [after, error] = std::from_chars(mLeft.data(), mLeft.data() + mLeft.size(), value, base);
        if (error != std::errc()) throw JsonError("undo log", "an entry is damaged");
        mLeft.remove_prefix(static_cast<std::size_t>(after - mLeft.data()));
        if (!mLeft.empty()) mLeft.remove_prefix(1);
        return value;
    }
    std::string_view rest() const { return mLeft; }

private:
    std::string_view mLeft;
};

using ReadLine = void (*)(LineReader& line, InterfaceRecord& record);

struct LineKind {
    std::string_view word;
    ReadLine read;
};

const LineKind lineKinds[] = {
    {"interface",
     [](LineReader& line, InterfaceRecord& record) {
         record.index = line.number<int>();
         record.name = line.rest();
     }},
    {"link",
     [](LineReader& line, InterfaceRecord& record) {
         const int mode = line.number<int>();
         record.linkBefore = LinkState{0, false, std::string(line.rest()), mode, {}};
     }},
    {"address",
     [](LineReader& line, InterfaceRecord& record) {
         const auto local = line.number<in_addr_t>(16);
         record.addresses.push_back({local, line.number<std::uint8_t>()});
     }},
    {"route",
     [](LineReader& line, InterfaceRecord& record) {
         Route route;
         route.destination = line.number<in_addr_t>(16);
         route.prefix = line.number<std::uint8_t>();
         route.gateway = line.number<in_addr_t>(16);
         route.metric = line.number<std::uint32_t>();
         record.routes.push_back(route);
     }},
    {"dns", [](LineReader& line, InterfaceRecord& record) { record.dns.emplace_back(line.rest()); }},
};

void readLine(std::string_view text, InterfaceRecord& record)
{
    LineReader line(text);
    const std::string_view word = line.word();
    for (const LineKind& kind : lineKinds) {
        if (kind.word == word) return kind.read(line, record);
    }
    throw JsonError("undo log", "an entry has a line of an unknown kind");
}

}  // namespace

std::string InterfaceRecord::encode() const
{
    std::string text;
    text.reserve(256 + longestRoute * routes.size());
    LineWriter line(text);
    line.word("interface ").number(index).word(" ").word(name).word("\n");
    if (linkBefore) {
        line.word("link ").number(linkBefore->addressGeneration).word(" ").word(linkBefore->queueing).word("\n");
    }
    for (const InterfaceAddress& address : addresses) {
        line.word("address ").number(address.local, 16).word("/").number(unsigned{address.prefix}).word("\n");
    }
    for (const Route& route : routes) {
        line.word("route ").number(route.destination, 16).word("/").number(unsigned{route.prefix}).word(" ");
        line.number(route.gateway, 16).word(" ").number(route.metric).word("\n");
    }
    for (const std::string& prepared : dns)
        line.word("dns ").word(prepared).word("\n");
    line.word("end\n");
    return text;
}

InterfaceRecord InterfaceRecord::decode(std::string_view text)
{
    InterfaceRecord record;
    while (true) {
        const std::size_t end = text.find('\n');
        if (end == std::string_view::npos) throw JsonError("undo log", "an entry has no end");
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end + 1);
        if (line == "end") break;
        readLine(line, record);
    }
    if (record.linkBefore) record.linkBefore->index = record.index;
    return record;
}

}  // namespace wfoal
