// SPDX-License-Identifier: Apache-2.0
//
// The promises of VkLogLib.h.
#include <set>

#include "Platform.h"
#include "Threads.h"
#include "VkLogLib.h"

namespace conformance {

namespace {

constexpr char header[] = "VkLogLib.h";

VkLogContext* contextOf(Platform& platform, const char* name)
{
    VkLogContext* context = nullptr;
    const int result = VKLOG(VkLogGetContext)(name, &context);
    expect(result == 0, "VkLogGetContext(\"" + std::string(name) + "\") returned " + std::to_string(result));
    expect(context != nullptr, "VkLogGetContext() returned 0 and no context");
    return context;
}

void expectInLog(Platform& platform, const std::string& text)
{
    expect(platform.log().find(text) != std::string::npos, "the log lacks \"" + text + "\"");
}

void exportsItsFunctions(Platform& platform)
{
    VKLOG(VkLogGetContext);
    VKLOG(VkLogPrint);
}

void makesContextAtFirstCall(Platform& platform)
{
    contextOf(platform, "conformance");
}

void sameNameSameContext(Platform& platform)
{
    VkLogContext* first = contextOf(platform, "conformance");
    expect(contextOf(platform, "another") != first, "two names have one context");
    expect(contextOf(platform, "conformance") == first, "one name has two contexts");
}

void startsWithSyslogLevel(Platform& platform)
{
    const int level = contextOf(platform, "conformance")->level;
    expect(level >= 0 && level <= 7, "the threshold of a new context is " + std::to_string(level) + ", not 0 to 7");
}

void refusesNullArguments(Platform& platform)
{
    VkLogContext mark{};
    VkLogContext* context = &mark;
    expect(VKLOG(VkLogGetContext)(nullptr, &context) > 0, "a null name did not give an errno value");
    expect(context == &mark, "a null name changed the caller's pointer");
    expect(VKLOG(VkLogGetContext)("conformance", nullptr) > 0, "a null place did not give an errno value");
}

void printsFormatted(Platform& platform)
{
    platform.requireVisibleLog();
    VkLogContext* context = contextOf(platform, "conformance");
    context->level = 6;
    VKLOG(VkLogPrint)(context, 6, "%s is %d of %lu, %p", "value", -5, 7UL, static_cast<void*>(nullptr));
    expectInLog(platform, "value is -5 of 7, (nil)");
}

void nullContextPrintsEverything(Platform& platform)
{
    platform.requireVisibleLog();
    VKLOG(VkLogPrint)(nullptr, 7, "%s", "debug without a context");
    expectInLog(platform, "debug without a context");
}

void threadsShareContexts(Platform& platform)
{
    std::vector<VkLogContext*> found(16);
    auto& getContext = VKLOG(VkLogGetContext);
    onThreads(16, [&](int number) { getContext("conformance-threads", &found[static_cast<std::size_t>(number)]); });
    expect(std::set<VkLogContext*>(found.begin(), found.end()).size() == 1, "16 threads did not get the same context");
}

void threadsPrintWholeLines(Platform& platform)
{
    platform.requireVisibleLog();
    auto& print = VKLOG(VkLogPrint);
    VkLogContext* context = contextOf(platform, "conformance");
    onThreads(4, [&](int number) {
        for (int line = 0; line < 100; ++line)
            print(context, 3, "<thread %d line %d>", number, line);
    });
    const std::string log = platform.log();
    for (int number = 0; number < 4; ++number) {
        for (int line = 0; line < 100; ++line) {
            const std::string text = "<thread " + std::to_string(number) + " line " + std::to_string(line) + ">";
            expect(log.find(text) != std::string::npos,
                   "of 400 lines of four threads, one is missing or torn: " + text);
        }
    }
}

void leavesNothingBehind(Platform& platform)
{
    const ProcessResources before = currentResources();
    for (int round = 0; round < 20; ++round) {
        VKLOG(VkLogPrint)(contextOf(platform, "conformance"), 6, "round %d", round);
        platform.unload("VkLogLib.h");
    }
    expectNothingLeft(before);
}

}  // namespace

const Promises& logPromises()
{
    static const Promises promises = {
        {header, "exports its two functions", exportsItsFunctions},
        {header, "a context is made at the first call for its name", makesContextAtFirstCall},
        {header, "a name has one context, and two names have two", sameNameSameContext},
        {header, "a new context's threshold is a level of syslog", startsWithSyslogLevel},
        {header, "a failure is an errno value and leaves the caller's pointer alone", refusesNullArguments},
        {header, "a message is printed as printf() would", printsFormatted},
        {header, "a null context prints whatever the level is", nullContextPrintsEverything},
        {header, "contexts can be had on any thread", threadsShareContexts},
        {header, "messages of several threads stay whole", threadsPrintWholeLines},
        {header, "unloading leaves no descriptor and no thread", leavesNothingBehind},
    };
    return promises;
}

}  // namespace conformance
