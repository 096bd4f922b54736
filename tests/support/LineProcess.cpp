// SPDX-License-Identifier: Apache-2.0
#include "LineProcess.h"
#include "ComesTrue.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <chrono>

namespace testsupport {

LineProcess::LineProcess(const std::vector<std::string>& command)
{
    std::array<int, 2> ends{};
    EXPECT_EQ(0, pipe2(ends.data(), O_CLOEXEC));
    mReader.reset(ends[0]);
    const UniqueFd writer(ends[1]);
    std::vector<std::string> merged{"sh", "-c", "exec \"$@\" 2>&1", "sh"};
    merged.insert(merged.end(), command.begin(), command.end());
    mProcess = std::make_unique<ChildProcess>(merged, writer.get());
}

bool LineProcess::await(const std::string& text)
{
    const auto deadline = std::chrono::steady_clock::now() + longestWait;
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd watched{mReader.get(), POLLIN, 0};
        if (poll(&watched, 1, 1000) != 1) continue;
        char character = 0;
        if (read(mReader.get(), &character, 1) != 1) return false;
        output += character;
        if (character != '\n') {
            mLine += character;
            continue;
        }
        const std::string line = std::move(mLine);
        mLine.clear();
        if (line.find(text) != std::string::npos) return true;
    }
    return false;
}

int LineProcess::end(int signal)
{
    mProcess->sendSignal(signal);
    return wait();
}

int LineProcess::wait()
{
    await("a text that nobody prints");
    pollfd watched{mProcess->endDescriptor(), POLLIN, 0};
    if (poll(&watched, 1, 20000) == 1) return mProcess->wait();
    ADD_FAILURE() << "it does not end: " << output;
    mProcess->stop();
    return -1;
}

std::vector<std::string> eventsIn(const std::string& output)
{
    constexpr char key[] = "\"event\":\"";
    std::vector<std::string> events;
    for (auto at = output.find(key); at != std::string::npos; at = output.find(key, at)) {
        at += sizeof key - 1;
        events.push_back(output.substr(at, output.find('"', at) - at));
    }
    return events;
}

}  // namespace testsupport
