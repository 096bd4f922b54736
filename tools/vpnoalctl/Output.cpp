// SPDX-License-Identifier: Apache-2.0
#include "Output.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "Json.h"

namespace vpnoalctl {

namespace {

const char* codeOf(Style style)
{
    switch (style) {
    case Style::Title: return "1";
    case Style::Good: return "32";
    case Style::Bad: return "31";
    case Style::Warning: return "33";
    case Style::Faint: return "2";
    case Style::Plain: break;
    }
    return "";
}

bool isColourWanted(std::FILE* stream)
{
    const char* terminal = std::getenv("TERM");
    return isatty(fileno(stream)) == 1 && std::getenv("NO_COLOR") == nullptr &&
           (terminal == nullptr || std::strcmp(terminal, "dumb") != 0);
}

std::string textOf(const Cell& cell)
{
    if (const auto* number = std::get_if<std::int64_t>(&cell.value)) return std::to_string(*number);
    if (const auto* flag = std::get_if<bool>(&cell.value)) return *flag ? "yes" : "no";
    return printable(std::get<std::string>(cell.value));
}

// Continuation bytes of UTF-8 take no column.
std::size_t widthOf(const std::string& text)
{
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; }));
}

}  // namespace

std::string printable(const std::string& text)
{
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) {
            result += fmt::format("\\x{:02x}", byte);
        } else {
            result += c;
        }
    }
    return result;
}

void tell(const std::string& text)
{
    static_cast<void>(std::fputs((printable(text) + "\n").c_str(), stderr));
}

JsonPtr tableToJson(const Table& table)
{
    JsonPtr array = newArray();
    for (const auto& cells : table.rows) {
        JsonPtr object = newObject();
        for (std::size_t i = 0; i < cells.size() && i < table.columns.size(); ++i) {
            const char* key = table.columns[i].key.c_str();
            const auto& value = cells[i].value;
            if (const auto* number = std::get_if<std::int64_t>(&value)) {
                addNumber(object, key, *number);
            } else if (const auto* flag = std::get_if<bool>(&value)) {
                addFlag(object, key, *flag);
            } else {
                addText(object, key, std::get<std::string>(value));
            }
        }
        append(array, std::move(object));
    }
    return array;
}

Output::Output(std::FILE* stream, bool json) : Output(stream, json, isColourWanted(stream)) {}

std::string Output::styled(const std::string& text, Style style) const
{
    if (!mColour || style == Style::Plain || text.empty()) return text;
    return fmt::format("\x1b[{}m{}\x1b[0m", codeOf(style), text);
}

void Output::write(const std::string& text)
{
    // flush() reports a failure.
    static_cast<void>(std::fwrite(text.data(), 1, text.size(), mStream));
}

void Output::row(const std::vector<Cell>& cells, const std::vector<std::size_t>& widths)
{
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        const std::string text = textOf(cells[i]);
        const std::string padding(widths[i] - widthOf(text), ' ');
        const bool isLast = i + 1 == cells.size();
        const bool isNumber = std::holds_alternative<std::int64_t>(cells[i].value);
        if (isNumber) line += padding;
        line += styled(text, cells[i].style);
        if (!isNumber && !isLast) line += padding;
        if (!isLast) line += "  ";
    }
    write(line + "\n");
}

void Output::table(const Table& table)
{
    if (mJson) return value(tableToJson(table));
    std::vector<Cell> headings;
    std::vector<std::size_t> widths;
    for (const Column& column : table.columns) {
        headings.emplace_back(column.title, Style::Title);
        widths.push_back(widthOf(column.title));
    }
    for (const auto& cells : table.rows) {
        for (std::size_t i = 0; i < cells.size(); ++i)
            widths[i] = std::max(widths[i], widthOf(textOf(cells[i])));
    }
    const bool titled = std::any_of(table.columns.begin(), table.columns.end(),
                                    [](const Column& column) { return !column.title.empty(); });
    if (titled) row(headings, widths);
    for (const auto& cells : table.rows)
        row(cells, widths);
}

void Output::line(const std::string& text, Style style)
{
    if (!mJson) write(styled(printable(text), style) + "\n");
}

void Output::value(const JsonPtr& value)
{
    if (mJson) write(toText(value) + "\n");
}

bool Output::flush()
{
    return std::fflush(mStream) == 0 && std::ferror(mStream) == 0;
}

}  // namespace vpnoalctl
