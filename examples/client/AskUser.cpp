// SPDX-License-Identifier: Apache-2.0
#include "client/AskUser.h"

#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "Output.h"

using namespace vpnoalctl;

namespace sampleclient {

namespace {

// Certificates can say anything: line by line, without control characters.
void show(const std::string& question)
{
    std::istringstream lines(question);
    std::string line;
    while (std::getline(lines, line)) {
        const bool isLast = lines.eof();
        static_cast<void>(std::fputs((printable(line) + (isLast ? "" : "\n")).c_str(), stderr));
    }
    static_cast<void>(std::fflush(stderr));
}

}  // namespace

bool canAskUser()
{
    return isatty(STDIN_FILENO) == 1;
}

bool askUser(Waiter& waiter, const std::string& question)
{
    show(question);
    const auto deadline = Waiter::Clock::now() + std::chrono::minutes(1);
    char answer[256];
    // A terminal hands over a whole line at once.
    const ssize_t length = waiter.waitUntilReady(STDIN_FILENO, POLLIN, deadline)
                               ? read(STDIN_FILENO, answer, sizeof answer)
                               : static_cast<ssize_t>(0);
    return length > 0 && (answer[0] == 'y' || answer[0] == 'Y');
}

}  // namespace sampleclient
