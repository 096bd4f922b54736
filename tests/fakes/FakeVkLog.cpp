// SPDX-License-Identifier: Apache-2.0
#include "FakeVkLog.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "FakeCalls.h"

namespace fakes {

namespace {

struct State {
    std::mutex lock;
    VkLogContext context{7};
    int result = 0;
    bool inCalls = false;
    const VkLogContext* lastContext = nullptr;
    std::string name;
    std::vector<LogLine> lines;
    std::vector<std::thread::id> threads;  // of each line
};

// Never destroyed: the code under test logs until the process ends.
State& state()
{
    static State* instance = new State;
    return *instance;
}

}  // namespace

std::vector<LogLine> logLines()
{
    const std::lock_guard<std::mutex> lock(state().lock);
    return state().lines;
}

std::vector<LogLine> logLines(int level)
{
    std::vector<LogLine> chosen;
    for (const LogLine& line : logLines()) {
        if (line.level == level) chosen.push_back(line);
    }
    return chosen;
}

std::vector<LogLine> logLinesOfThisThread()
{
    const std::lock_guard<std::mutex> lock(state().lock);
    std::vector<LogLine> chosen;
    for (std::size_t i = 0; i < state().lines.size(); ++i) {
        if (state().threads[i] == std::this_thread::get_id()) chosen.push_back(state().lines[i]);
    }
    return chosen;
}

void clearLog()
{
    const std::lock_guard<std::mutex> lock(state().lock);
    state().threads.clear();
    state().lines.clear();
}

void recordLogInCalls(bool wanted)
{
    const std::lock_guard<std::mutex> lock(state().lock);
    state().inCalls = wanted;
}

VkLogContext& logContext()
{
    return state().context;
}

const VkLogContext* lastContext()
{
    const std::lock_guard<std::mutex> lock(state().lock);
    return state().lastContext;
}

void setLogContextResult(int result)
{
    state().result = result;
}

std::string logContextName()
{
    return state().name;
}

}  // namespace fakes

extern "C" int VkLogGetContext(const char* name, VkLogContext** context)
{
    auto& state = fakes::state();
    state.name = name;
    if (state.result != 0) return state.result;
    *context = &state.context;
    return 0;
}

extern "C" void VkLogPrint(VkLogContext* context, int level, const char* format, ...)
{
    va_list values;
    va_start(values, format);
    char* text = nullptr;
    const int length = vasprintf(&text, format, values);
    va_end(values);
    if (length < 0) return;
    const std::string line(text, static_cast<std::size_t>(length));
    std::free(text);
    auto& state = fakes::state();
    const std::lock_guard<std::mutex> lock(state.lock);
    state.lastContext = context;
    state.lines.push_back({level, line});
    state.threads.push_back(std::this_thread::get_id());
    if (state.inCalls) fakes::recordCall("LOG " + std::to_string(level) + " " + line);
}
