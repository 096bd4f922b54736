// SPDX-License-Identifier: Apache-2.0
//
// What happens in which order when the real library is loaded and unloaded by another process, as its log shows it;
// and that nothing stays behind.
#include <gmock/gmock.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "handles/Stdio.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

struct Session {
    std::vector<std::string> lines;
    int status = -1;

    /// Place of the first line that ends with `text`; the number of lines when there is none.
    std::size_t find(const std::string& text) const
    {
        for (std::size_t i = 0; i < lines.size(); ++i) {
            if (lines[i].size() >= text.size() &&
                lines[i].compare(lines[i].size() - text.size(), text.size(), text) == 0)
                return i;
        }
        return lines.size();
    }
    std::string all() const
    {
        std::string text;
        for (const auto& line : lines)
            text += line + "\n";
        return text;
    }
};

Session run(const std::string& environment, const std::string& arguments)
{
    // A stopped event side keeps its loop and its bus handle on purpose; a sanitizer is to look for everything else.
    const std::string command = "ASAN_OPTIONS=detect_leaks=0 " + environment + " '" LOADER "' '" PLUGIN "' " +
                                arguments + " 2>&1; echo \"-- status $?\"";
    Session result;
    const PipePtr pipe(popen(command.c_str(), "r"));
    char* line = nullptr;
    std::size_t room = 0;
    for (ssize_t length; pipe && (length = getline(&line, &room, pipe.get())) > 0;) {
        result.lines.emplace_back(line, static_cast<std::size_t>(length - 1));
    }
    std::free(line);
    if (!result.lines.empty() && result.lines.back().rfind("-- status ", 0) == 0) {
        result.status = std::atoi(result.lines.back().c_str() + 10);
        result.lines.pop_back();
    }
    return result;
}

const std::string stopping = "7 netlink=0 context=yes stopQuorIpcHandling: Called!";

/// The event thread may begin late, even while the process ends.
void expectOnlyTheEventThreadLogs(const Session& result, std::size_t from, std::size_t end)
{
    ASSERT_LT(end, result.lines.size()) << result.all();
    for (std::size_t line = from; line < end; ++line)
        EXPECT_THAT(result.lines[line], MatchesRegex("7 netlink=[01] context=yes eventProcessingThread: .*"));
}

const std::string fakes = "LD_LIBRARY_PATH='" FAKES "'";

TEST(LoadOrderTest, StaticObjectsAreThereBeforeTheLoadHookAndGoneBeforeTheUnloadHook)
{
    const Session result = run(fakes, "unload");
    ASSERT_EQ(0, result.status) << result.all();
    ASSERT_LT(result.find("-- left"), result.lines.size()) << result.all();
    // The reader's netlink socket shows whether static objects are there.
    EXPECT_EQ(1u, result.find("7 netlink=1 context=yes Debug initialized")) << result.all();
    EXPECT_EQ(2u, result.find("-- loaded")) << result.all();
    const std::size_t leaving = result.find("-- leaving");
    EXPECT_THAT(result.lines.at(leaving - 1), StartsWith("7 netlink=1 ")) << result.all();
    expectOnlyTheEventThreadLogs(result, leaving + 1, result.find(stopping));
    EXPECT_EQ("7 netlink=0 context=yes stopQuorIpcHandling: Finished!", result.lines.at(result.lines.size() - 2));
    EXPECT_EQ("-- left", result.lines.back());
}

/// The functions that the loader runs at load, in their order, as the linker's tables name them. With 32 bits
/// the address stands in the section and not in the table. On ARM a mark of the code begins with a dollar sign.
std::vector<std::string> loadFunctions()
{
    const std::string script =
        "set -- $(readelf -W -S '" PLUGIN
        "' | sed -n 's/^.* \\.init_array *INIT_ARRAY *\\([0-9a-f]*\\) \\([0-9a-f]*\\) "
        "\\([0-9a-f]*\\) .*/0x\\1 0x\\3 0x\\2/p'); "
        "readelf -W -r '" PLUGIN
        "' | while read -r place info kind address rest; do "
        "case $kind in *_RELATIVE) ;; *) continue ;; esac; "
        "if [ $((0x$place)) -ge $(($1)) ] && [ $((0x$place)) -lt $(($1 + $2)) ]; then "
        "[ -n \"$address\" ] || address=$(echo $(od -An -t x4 -N 4 "
        "-j $((0x$place - $1 + $3)) '" PLUGIN
        "')); "
        "nm -C '" PLUGIN "' | sed -n \"s/^0*$address [tT] //p\" | grep -v '^\\$' | head -1; fi; done";
    std::vector<std::string> names;
    const PipePtr pipe(popen(script.c_str(), "r"));
    char line[1024];
    while (pipe && std::fgets(line, sizeof line, pipe.get()) != nullptr) {
        names.emplace_back(line);
        names.back().pop_back();
    }
    return names;
}

TEST(LoadOrderTest, NoStaticObjectIsConstructedAfterTheLoadHook)
{
#if defined(__clang__) && defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP()
        << "clang's address sanitizer adds functions to each file, and constructs at run time what is constant";
#endif
    const std::vector<std::string> functions = loadFunctions();
    ASSERT_GE(functions.size(), 2u) << "the reader's constructor and the load hook at least";
    // The reader is made with priority 200, which clang names in place of the file.
    EXPECT_THAT(functions,
                testing::Contains(testing::AnyOf(HasSubstr("NetLinkHelper.cpp"), "global constructors keyed to 000200"))
                    .Times(1));
    // Newer compilers call all functions without a priority, which these are, from one; the test above sees their
    // order.
    EXPECT_THAT(functions.back(), testing::AnyOf("(anonymous namespace)::InitLib()", StartsWith("_sub_I_65535_")))
        << testing::PrintToString(functions);
}

TEST(LoadOrderTest, ConstructorOfAStaticObjectLogsBeforeTheLoadHookAndWithoutAContext)
{
    const Session result = run(fakes, "blocked");
    ASSERT_EQ(0, result.status) << result.all();
    ASSERT_GE(result.lines.size(), 4u) << result.all();
    EXPECT_EQ("-- loading", result.lines[0]);
    EXPECT_THAT(result.lines[1], AllOf(StartsWith("3 netlink="), HasSubstr(" context=no NetLinkHelper::NetLinkHelper: "
                                                                           "Error binding: ")));
    const std::size_t initialized = result.find(" context=yes Debug initialized");
    EXPECT_GT(initialized, 1u);
    EXPECT_LT(initialized, result.find("-- loaded")) << result.all();
}

TEST(LoadOrderTest, OrderIsTheSameWhenTheProcessEndsWithTheLibraryLoaded)
{
    const Session result = run(fakes, "exit");
    ASSERT_EQ(0, result.status) << result.all();
    const std::size_t left = result.find("-- left");
    ASSERT_LT(left + 1, result.lines.size()) << result.all();
    expectOnlyTheEventThreadLogs(result, left + 1, result.find(stopping));
    EXPECT_EQ("7 netlink=0 context=yes stopQuorIpcHandling: Finished!", result.lines.back());
}

void expectNoContext(const std::string& environment)
{
    const Session result = run(fakes + " " + environment, "unload");
    ASSERT_EQ(0, result.status) << result.all();
    ASSERT_GE(result.lines.size(), 4u);
    EXPECT_EQ("3 netlink=1 context=no InitLib: VkLogGetContext err 12", result.lines[1]);
    EXPECT_EQ("7 netlink=1 context=no Debug initialized", result.lines[2]);
    for (const std::string& line : result.lines)
        EXPECT_THAT(line, testing::Not(HasSubstr("context=yes")));
    EXPECT_LT(result.find("stopQuorIpcHandling: Finished!"), result.lines.size());
}

TEST(LoadOrderTest, WithoutALogContextEverythingIsPrintedWithNull)
{
    expectNoContext("WFOAL_TEST_LOG_RESULT=12");
}

TEST(LoadOrderTest, ContextThatAFailedLookUpStoredIsNotUsed)
{
    expectNoContext("WFOAL_TEST_LOG_RESULT=12 WFOAL_TEST_LOG_STORES=1");
}

// With the platform's real libraries from here on.
const std::string real = "VKLOG_TARGET=stderr";

TEST(LoadOrderTest, TwoHundredLoadsLeaveNothingBehind)
{
    const Session result = run(real + " VKLOG_LEVEL=0", "quiet");
    ASSERT_EQ(0, result.status) << result.all();
    ASSERT_EQ(2u, result.lines.size()) << result.all();
    EXPECT_THAT(result.lines[0], testing::MatchesRegex("-- while loaded: [1-9][0-9]* mappings, 0 threads more"));
    EXPECT_EQ("-- left after 200: 0 descriptors, 0 threads, 0 mappings", result.lines[1]);
}

// Stopping the event side keeps its loop on purpose, and with it the loop's wake-up descriptor.
TEST(LoadOrderTest, TwoHundredLoadsWithTheEventSideLeaveNoThreadAndNoMapping)
{
    const Session result = run(real + " VKLOG_LEVEL=0", "repeat");
    ASSERT_EQ(0, result.status) << result.all();
    ASSERT_EQ(2u, result.lines.size()) << result.all();
    EXPECT_THAT(result.lines[0], testing::MatchesRegex("-- while loaded: [1-9][0-9]* mappings, [1-9] threads more"));
    EXPECT_THAT(result.lines[1], testing::EndsWith(" descriptors, 0 threads, 0 mappings"));
}

TEST(LoadOrderTest, UnloadHookLogsToTheEndThoughTheProcessExits)
{
    const Session result = run(real + " VKLOG_LEVEL=7", "exit");
    ASSERT_EQ(0, result.status) << result.all();
    EXPECT_EQ("vpnagent.wfoal[7]: stopQuorIpcHandling: Finished!", result.lines.back());
}

}  // namespace
