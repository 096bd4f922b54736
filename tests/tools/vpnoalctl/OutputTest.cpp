// SPDX-License-Identifier: Apache-2.0
#include "Output.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <functional>

#include "Json.h"
#include "handles/Stdio.h"

namespace vpnoalctl {
namespace {

const Table interfaces{{{"name", "NAME"}, {"mtu", "MTU"}, {"up", "UP"}},
                       {{"lo", 65536, true}, {Cell("eth0", Style::Good), 1500, false}}};

std::string printed(bool json, bool colour, const std::function<void(Output&)>& print)
{
    char* text = nullptr;
    std::size_t length = 0;
    FilePtr stream(open_memstream(&text, &length));
    Output output(stream.get(), json, colour);
    print(output);
    EXPECT_TRUE(output.flush());
    stream.reset();
    std::string result(text, length);
    std::free(text);
    return result;
}

std::string printedTable(bool json, bool colour)
{
    return printed(json, colour, [](Output& output) { output.table(interfaces); });
}

TEST(OutputTest, TableIsAlignedWithNumbersToTheRight)
{
    EXPECT_EQ(
        "NAME  MTU    UP\n"
        "lo    65536  yes\n"
        "eth0   1500  no\n",
        printedTable(false, false));
}

TEST(OutputTest, ColourDoesNotDisturbTheColumns)
{
    EXPECT_EQ(
        "\x1b[1mNAME\x1b[0m  \x1b[1mMTU\x1b[0m    \x1b[1mUP\x1b[0m\n"
        "lo    65536  yes\n"
        "\x1b[32meth0\x1b[0m   1500  no\n",
        printedTable(false, true));
}

TEST(OutputTest, EachStyleHasItsColour)
{
    const auto all = [](Output& output) {
        for (const Style style : {Style::Plain, Style::Title, Style::Good, Style::Bad, Style::Warning, Style::Faint})
            output.line("x", style);
    };
    EXPECT_EQ("x\n\x1b[1mx\x1b[0m\n\x1b[32mx\x1b[0m\n\x1b[31mx\x1b[0m\n\x1b[33mx\x1b[0m\n\x1b[2mx\x1b[0m\n",
              printed(false, true, all));
}

TEST(OutputTest, TableWithoutTitlesHasNoHeading)
{
    const Table table{{{"what", ""}, {"value", ""}}, {{"soname", "x"}}};
    EXPECT_EQ("soname  x\n", printed(false, false, [&table](Output& output) { output.table(table); }));
}

TEST(OutputTest, MachinesGetOneArrayOfObjectsWithTypes)
{
    EXPECT_EQ(R"([{"name":"lo","mtu":65536,"up":true},{"name":"eth0","mtu":1500,"up":false}])"
              "\n",
              printedTable(true, true));
}

TEST(OutputTest, LinesAreForPeopleAndValuesForMachines)
{
    const JsonPtr value = newObject();
    addText(value, "path", "/tmp/a");
    const auto both = [&value](Output& output) {
        output.line("done");
        output.value(value);
    };
    EXPECT_EQ("done\n", printed(false, false, both));
    EXPECT_EQ("{\"path\":\"/tmp/a\"}\n", printed(true, false, both));
}

TEST(OutputTest, ControlCharactersOfNamesReachNoTerminal)
{
    EXPECT_EQ("a\\x1b[2Jb\\x0a", printable("a\x1b[2Jb\n"));
    const Table table{{{"name", "NAME"}}, {{"x\ty"}}};
    EXPECT_EQ("NAME\nx\\x09y\n", printed(false, false, [&table](Output& output) { output.table(table); }));
}

TEST(OutputTest, LettersOfSeveralBytesTakeOneColumn)
{
    const Table table{{{"name", "NAME"}, {"n", "N"}}, {{"h\xc3\xa9", "1"}}};
    EXPECT_EQ("NAME  N\nh\xc3\xa9    1\n", printed(false, false, [&table](Output& output) { output.table(table); }));
}

TEST(OutputTest, WhatCannotBeWrittenIsNoticed)
{
    const FilePtr notForWriting(std::fopen("/dev/null", "r"));
    Output output(notForWriting.get(), false, false);
    output.line("lost");
    EXPECT_FALSE(output.flush());
}

}  // namespace
}  // namespace vpnoalctl
