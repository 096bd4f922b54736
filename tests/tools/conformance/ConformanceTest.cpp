// SPDX-License-Identifier: Apache-2.0
//
// The conformance program: the host platform keeps every promise, and a library with a fault is found out, by the
// promise that the fault breaks.
#include <gmock/gmock.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "Daemons.h"
#include "Shell.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testsupport::CommandResult;
using testsupport::runCommand;

constexpr char program[] = WFOAL_BUILD_DIR "/bin/vpnoalconform";
constexpr char hostFolder[] = WFOAL_BUILD_DIR "/lib";

// The lines of the promises with this result; those that could not be tested stand below their reason.
std::vector<std::string> promisesIn(const std::string& output, const std::string& result)
{
    std::vector<std::string> found;
    std::istringstream lines(output);
    std::string reason;
    for (std::string line; std::getline(lines, line);) {
        const bool isBelowReason = !reason.empty() && line.rfind(' ', 0) == 0;
        if (!isBelowReason) reason = line.rfind("not testable here: ", 0) == 0 ? line : "";
        const bool isWanted =
            result == "not testable here" ? isBelowReason : reason.empty() && line.rfind(result + " ", 0) == 0;
        if (isWanted) found.push_back(isBelowReason ? line + " (" + reason + ")" : line);
    }
    return found;
}

// Each interface has promises, and the last line counts all of them.
void expectSummaryCounts(const std::string& output)
{
    const std::vector<std::string> held = promisesIn(output, "ok");
    for (const char* header : {"VkLogLib.h", "VkNetConfigLib.h", "powerd.h", "quorservice.h"})
        EXPECT_THAT(held, Contains(HasSubstr(header)));
    EXPECT_THAT(output, EndsWith(std::to_string(held.size()) + " promises hold, " +
                                 std::to_string(promisesIn(output, "not ok").size()) + " do not, " +
                                 std::to_string(promisesIn(output, "not testable here").size()) +
                                 " could not be tested here\n"));
}

/// A private bus, and an interface that may be configured.
class ConformanceTest : public testing::Test {
protected:
    void SetUp() override
    {
        mBus = testsupport::startBus();
        testsupport::shell("ip link add norvatun0 type veth peer name other && ip link set other up");
    }
    void TearDown() override { testsupport::shell("ip link delete norvatun0"); }

private:
    testsupport::ChildProcess mBus;
};

TEST_F(ConformanceTest, HostPlatformKeepsEveryPromise)
{
    const CommandResult result = runCommand({program, hostFolder, "--interface", "norvatun0"});
    EXPECT_EQ(0, result.status);
    EXPECT_THAT(promisesIn(result.output, "not ok"), IsEmpty());
    EXPECT_THAT(
        promisesIn(result.output, "not testable here"),
        ElementsAre(HasSubstr(" before sleep, at sleep and after it the callbacks run on the loop's thread, "),
                    EndsWith(" a call without an answer is answered after 120 seconds (not testable here: would "
                             "take 120 seconds)"),
                    EndsWith(" after a restart of the bus the handle connects again (not testable here: would "
                             "restart the device's bus)")));
    expectSummaryCounts(result.output);
}

TEST_F(ConformanceTest, WithoutInterfaceNothingIsChanged)
{
    const std::string before = testsupport::shell("ip address; ip route; nft list ruleset");
    const CommandResult result = runCommand({program, hostFolder});
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_THAT(promisesIn(result.output, "not ok"), IsEmpty());
    expectSummaryCounts(result.output);
    // What has one reason stands below it, once.
    const std::string reason =
        "not testable here: would change the network; name an interface that may be configured (--interface)\n"
        "                  VkNetConfigLib.h removing a configuration that is not there is no failure\n"
        "                  VkNetConfigLib.h an interface that does not exist is refused\n"
        "                  VkNetConfigLib.h a request takes effect before the call returns\n";
    const std::size_t place = result.output.find(reason);
    EXPECT_NE(std::string::npos, place) << result.output;
    EXPECT_EQ(std::string::npos, result.output.find("would change the network", place + reason.size()));
    EXPECT_EQ(before, testsupport::shell("ip address; ip route; nft list ruleset"));
}

TEST_F(ConformanceTest, PrintsJsonForMachines)
{
    const CommandResult result = runCommand({program, "--json", "--only", "powerd.h", hostFolder});
    EXPECT_EQ(0, result.status);
    EXPECT_THAT(result.output, HasSubstr(R"("interface":"powerd.h",)"));
    EXPECT_THAT(result.output, HasSubstr(R"("promise":"one client a process",)"));
    EXPECT_THAT(result.output, HasSubstr(R"("result":"not testable here",)"));
    EXPECT_THAT(result.output, HasSubstr(R"("reason":"needs a device that goes to sleep")"));
    EXPECT_THAT(result.output, HasSubstr(R"("notOk":0)"));
}

TEST_F(ConformanceTest, WithoutBusWhatNeedsOneIsNotTestable)
{
    const CommandResult result = runCommand(
        {"env", "DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent", program, hostFolder, "--only", "quorservice.h"});
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_THAT(result.output, HasSubstr("not testable here: there is no bus"));
    EXPECT_THAT(promisesIn(result.output, "not testable here"),
                Contains(HasSubstr("each call has a token of its own")));
}

TEST_F(ConformanceTest, MissingLibraryAndMissingFunctionAreBroken)
{
    const CommandResult missing = runCommand({program, "/tmp", "--only", "exports"});
    EXPECT_EQ(1, missing.status);
    EXPECT_THAT(missing.output, HasSubstr("the library cannot be loaded"));
    EXPECT_THAT(missing.output, HasSubstr("0 promises hold, 4 do not"));
    const CommandResult other =
        runCommand({program, hostFolder, "--libpowerd", std::string(hostFolder) + "/libVkLogLib.so", "--only",
                    "exports its seven"});
    EXPECT_EQ(1, other.status);
    EXPECT_THAT(other.output, HasSubstr("PowerdGmainAttach is not exported"));
}

TEST_F(ConformanceTest, WhatFailsIsExplained)
{
    const CommandResult result = runCommand({program, "/tmp", "--only", "exports its two"});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ(
        "not ok            VkLogLib.h       exports its two functions\n"
        "                  expected: exports its two functions\n"
        "                  came:     the library cannot be loaded: /tmp/libVkLogLib.so: cannot open shared object "
        "file: "
        "No such file or directory\n"
        "                  see:      docs/porting.md#log\n"
        "0 promises hold, 1 do not, 0 could not be tested here\n",
        result.output);
}

// Sections of a page are found by their headings, in small letters with dashes.
TEST_F(ConformanceTest, PagesThatExplainAreThere)
{
    std::ifstream page(WFOAL_SOURCE_DIR "/docs/porting.md");
    std::set<std::string> sections;
    for (std::string line; std::getline(page, line);) {
        if (line.rfind('#', 0) != 0) continue;
        std::string section = line.substr(line.find(' ') + 1);
        std::replace(section.begin(), section.end(), ' ', '-');
        for (char& letter : section)
            letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
        sections.insert("docs/porting.md#" + section);
    }
    const std::string output = runCommand({program, "/tmp", "--only", "exports"}).output;
    std::istringstream lines(output);
    int seen = 0;
    for (std::string line; std::getline(lines, line);) {
        const std::size_t place = line.find("see:      ");
        if (place == std::string::npos) continue;
        EXPECT_THAT(sections, Contains(line.substr(place + 10)));
        ++seen;
    }
    EXPECT_EQ(4, seen);
}

TEST_F(ConformanceTest, PrintsTestAnythingProtocol)
{
    const CommandResult good = runCommand({program, hostFolder, "--tap", "--only", "a filter "});
    EXPECT_EQ(0, good.status);
    EXPECT_EQ(
        "TAP version 13\n"
        "1..2\n"
        "ok 1 - VkNetConfigLib.h: a filter drops what its rule says, and all else passes # SKIP would change the "
        "network; "
        "name an interface that may be configured (--interface)\n"
        "ok 2 - VkNetConfigLib.h: a filter replaces the one before it # SKIP would change the network; "
        "name an interface that may be configured (--interface)\n",
        good.output);
    const CommandResult bad = runCommand({program, "/tmp", "--tap", "--only", "exports its two"});
    EXPECT_EQ(1, bad.status);
    EXPECT_EQ(
        "TAP version 13\n"
        "1..1\n"
        "not ok 1 - VkLogLib.h: exports its two functions\n"
        "  ---\n"
        "  expected: \"exports its two functions\"\n"
        "  came: \"the library cannot be loaded: /tmp/libVkLogLib.so: cannot open shared object file: No such file or "
        "directory\"\n"
        "  see: docs/porting.md#log\n"
        "  ...\n",
        bad.output);
}

TEST_F(ConformanceTest, UnknownPromisesAreRefused)
{
    const auto refusal = [](const char* only) {
        const CommandResult result = runCommand({program, hostFolder, "--only", only});
        EXPECT_EQ(2, result.status) << result.output;
        return result.output;
    };
    EXPECT_THAT(refusal("quorservise.h"), HasSubstr("the words 'quorservise.h'; did you mean 'quorservice.h'?\n"));
    EXPECT_THAT(refusal("unloding leaves"),
                HasSubstr("the words 'unloding leaves'; did you mean 'unloading leaves'?\n"));
    EXPECT_THAT(refusal("xyzzyx"), HasSubstr("the words 'xyzzyx'; --list prints all\n"));
}

TEST_F(ConformanceTest, ListsPromisesWithoutALibrary)
{
    const CommandResult result = runCommand({program, "/tmp", "--list", "--only", "one client"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("powerd.h         one client a process\n", result.output);
}

TEST_F(ConformanceTest, UsageIsChecked)
{
    EXPECT_EQ(2, runCommand({program, "/nonexistent"}).status);
    EXPECT_EQ(2, runCommand({program, "--nonsense"}).status);
    EXPECT_EQ(2, runCommand({program, "--json", "--tap"}).status);
    EXPECT_EQ(0, runCommand({program, "--help"}).status);
}

/// A fault of one of the libraries in BrokenX.cpp, and the promise that it breaks.
struct Fault {
    const char* library;
    const char* fault;
    const char* promise;
};

class FaultTest : public ConformanceTest, public testing::WithParamInterface<Fault> {};

TEST_P(FaultTest, IsFoundOut)
{
    const auto& [library, fault, promise] = GetParam();
    const std::vector<std::string> command = {program,
                                              hostFolder,
                                              std::string("--") + library,
                                              std::string(hostFolder) + "/broken/" + library + ".so",
                                              "--only",
                                              promise,
                                              "--interface",
                                              "norvatun0"};
    const CommandResult sound = runCommand(command);
    EXPECT_EQ(0, sound.status) << sound.output;
    EXPECT_THAT(sound.output, AllOf(HasSubstr("promises hold, 0 do not"), Not(HasSubstr("0 promises"))));

    std::vector<std::string> faulty = {"env", std::string("WFOAL_BREAK=") + fault};
    faulty.insert(faulty.end(), command.begin(), command.end());
    const CommandResult found = runCommand(faulty);
    EXPECT_EQ(1, found.status) << found.output;
    EXPECT_THAT(found.output, HasSubstr(std::string(promise))) << found.output;
    EXPECT_THAT(found.output, HasSubstr("not ok")) << found.output;
}

constexpr char logLibrary[] = "libVkLogLib";
constexpr char power[] = "libpowerd";
constexpr char netConfig[] = "libVkNetConfigLib";
constexpr char bus[] = "libquorservice";

constexpr Fault faults[] = {
    {logLibrary, "getting a context fails", "a context is made at the first call"},
    {logLibrary, "null is taken", "a failure is an errno value"},
    {logLibrary, "each call makes a context", "a name has one context"},
    {logLibrary, "each call makes a context", "contexts can be had on any thread"},
    {logLibrary, "one context for all", "a name has one context"},
    {logLibrary, "threshold of 9", "a new context's threshold"},
    {logLibrary, "no debug without context", "a null context prints"},
    {logLibrary, "format printed as it is", "a message is printed as printf()"},
    {logLibrary, "every tenth line lost", "messages of several threads stay whole"},
    {logLibrary, "a descriptor a context", "unloading leaves no descriptor"},
    {logLibrary, "stays loaded", "unloading leaves no descriptor"},

    {power, "null loop taken", "a null loop and a null name"},
    {power, "crash at a null name", "a null loop and a null name"},
    {power, "a second client taken", "one client a process"},
    {power, "a descriptor a client", "unloading leaves no descriptor"},
    {power, "a descriptor a client", "unloading without deinitialising"},
    {power, "not without a daemon", "a missing daemon is no failure"},
    {power, "starts before it is attached", "attaching is the first"},
    {power, "deinit does nothing", "after deinitialising it can be used again"},
    {power, "deinit fails", "deinitialising is harmless"},
    {power, "deinit fails", "deinitialising works on the loop's own thread"},
    {power, "deinit hangs", "deinitialising is harmless"},
    {power, "null callback refused", "a null callback removes one"},
    {power, "one thread only", "calls may come from any thread"},

    {netConfig, "anything is taken", "a malformed interface request"},
    {netConfig, "anything is taken", "a null request or name"},
    {netConfig, "anything is taken", "an interface that does not exist"},
    {netConfig, "anything is taken", "a request takes effect"},
    {netConfig, "anything is taken", "two /1 routes"},
    {netConfig, "anything is taken", "another process cannot"},
    {netConfig, "crash at null", "a null request or name"},
    {netConfig, "half is kept", "changes nothing"},
    {netConfig, "two lines", "one line of the log"},
    {netConfig, "silence", "one line of the log"},
    {netConfig, "late", "a request takes effect"},
    {netConfig, "a descriptor a request", "unloading leaves no descriptor"},
    {netConfig, "nothing is removed", "restores the state before"},
    {netConfig, "nothing there is a failure", "removing a configuration that is not there"},
    {netConfig, "any filter is taken", "a malformed firewall request"},
    {netConfig, "any filter is taken", "a filter drops what"},
    {netConfig, "any filter is taken", "a filter replaces"},
    {netConfig, "any filter is taken", "rules are tried in their order"},
    {netConfig, "nothing is removed", "what an ended process left"},
    {netConfig, "filters stay", "a filter drops what"},
    {netConfig, "drops everything", "a filter drops what"},

    {bus, "init leaves the record", "initialising makes"},
    {bus, "free leaves the record", "a failure fills"},
    {bus, "free of null crashes", "releasing accepts null"},
    {bus, "errors crash without a record", "may be left out"},
    {bus, "failure without a message", "a failure fills"},
    {bus, "failure clears the handle", "leaves the caller's handle alone"},
    {bus, "a name for everybody", "a name that is taken"},
    {bus, "a descriptor a handle", "unregistering and unloading"},
    {bus, "a descriptor a handle", "handles that are left"},
    {bus, "unregister leaves the connection", "calls that wait"},
    {bus, "unregister does not wait", "unregistering waits"},
    {bus, "attached twice", "a handle is attached"},
    {bus, "status is never told", "a watched service"},
    {bus, "anything is called", "a malformed URI"},
    {bus, "anything is called", "a call to nobody"},
    {bus, "wrong error code", "a malformed URI"},
    {bus, "null callback refused", "callback and token"},
    {bus, "no reply", "nothing is sent before"},
    {bus, "replies from inside the call", "never comes from inside"},
    {bus, "replies on another thread", "a call to nobody"},
    {bus, "replies on another thread", "every reply comes on the loop's"},
    {bus, "every reply twice", "a call to nobody"},
    {bus, "replies without their token", "a service answers"},
    {bus, "one token for all", "a token of its own"},
    {bus, "null message has a payload", "a null message"},
    {bus, "any table is taken", "malformed tables"},
    {bus, "one category for all", "belongs to its category"},
    {bus, "everybody is user 4711", "the sender's user id"},
    {bus, "answers are empty", "a service answers"},
    {bus, "answers are empty", "a request is answered once"},
    {bus, "subscriptions without limit", "the 65th subscription"},
    {bus, "pushes get lost", "pushes go to subscribers"},
    {bus, "every push twice", "pushes go to subscribers"},
    {bus, "push without subscriber fails", "a push without a subscriber"},
};

std::string nameOf(const testing::TestParamInfo<Fault>& info)
{
    std::string name = std::to_string(info.index) + "_" + info.param.fault;
    for (char& c : name) {
        if (std::isalnum(static_cast<unsigned char>(c)) == 0) c = '_';
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Faults, FaultTest, testing::ValuesIn(faults), nameOf);

}  // namespace
