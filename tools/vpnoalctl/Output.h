// SPDX-License-Identifier: Apache-2.0
//
// What a command prints on stdout: aligned tables with colour for a person at a terminal, one JSON value for machines.
#ifndef VPNOALCTL_OUTPUT_H
#define VPNOALCTL_OUTPUT_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

#include "handles/Json.h"

namespace vpnoalctl {

enum class Style { Plain, Title, Good, Bad, Warning, Faint };

/// Text without control characters, which could play tricks on a terminal: they are shown as \xHH.
std::string printable(const std::string& text);

/// Prints one line on stderr. A failure cannot be reported.
void tell(const std::string& text);

struct Cell {
    Cell(std::string text, Style look = Style::Plain) : value(std::move(text)), style(look) {}
    Cell(const char* text, Style look = Style::Plain) : value(std::string(text)), style(look) {}
    /// Any whole number, or a flag: "yes" or "no" for people.
    template <class Number, class = std::enable_if_t<std::is_integral_v<Number>>>
    Cell(Number number, Style look = Style::Plain) : style(look)
    {
        if constexpr (std::is_same_v<Number, bool>) {
            value = number;
        } else {
            value = static_cast<std::int64_t>(number);
        }
    }

    std::variant<std::string, std::int64_t, bool> value;
    Style style;
};

/// A column: `key` names it in JSON, `title` is its heading.
struct Column {
    std::string key;
    std::string title;
};

/// Rows of one cell a column.
struct Table {
    std::vector<Column> columns;
    std::vector<std::vector<Cell>> rows;
};

/// An array of objects, one a row.
JsonPtr tableToJson(const Table& table);

class Output {
public:
    /// `stream` is not owned. Colour: only on a terminal, and not when NO_COLOR is set.
    Output(std::FILE* stream, bool json);
    Output(std::FILE* stream, bool json, bool colour) : mStream(stream), mJson(json), mColour(colour) {}

    /// True when the command is to print one JSON value and nothing else.
    bool json() const { return mJson; }

    /// For people: headings and rows in aligned columns; numbers to the right. Without headings when every title is
    /// empty. For machines: tableToJson().
    void table(const Table& table);
    /// For people: one line. Not printed for machines.
    void line(const std::string& text, Style style = Style::Plain);
    /// For machines: the value and a line end. Not printed for people.
    void value(const JsonPtr& value);
    /// False when something printed so far did not reach its target.
    bool flush();

private:
    void write(const std::string& text);
    std::string styled(const std::string& text, Style style) const;
    void row(const std::vector<Cell>& cells, const std::vector<std::size_t>& widths);

    std::FILE* mStream;
    bool mJson;
    bool mColour;
};

}  // namespace vpnoalctl

#endif
