// SPDX-License-Identifier: Apache-2.0
#include "FakeCalls.h"

#include <mutex>

namespace fakes {

namespace {

struct State {
    std::mutex lock;
    std::vector<std::string> calls;
};

// Never destroyed: the code under test may call until the process ends.
State& state()
{
    static State* instance = new State;
    return *instance;
}

}  // namespace

void recordCall(const std::string& call)
{
    const std::lock_guard<std::mutex> lock(state().lock);
    state().calls.push_back(call);
}

std::vector<std::string> calls()
{
    const std::lock_guard<std::mutex> lock(state().lock);
    return state().calls;
}

void clearCalls()
{
    const std::lock_guard<std::mutex> lock(state().lock);
    state().calls.clear();
}

}  // namespace fakes
