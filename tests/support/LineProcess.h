// SPDX-License-Identifier: Apache-2.0
//
// A program whose lines are read as they come.
#ifndef TESTSUPPORT_LINEPROCESS_H
#define TESTSUPPORT_LINEPROCESS_H

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "handles/UniqueFd.h"

namespace testsupport {

class LineProcess {
public:
    /// Starts the program with both outputs in one.
    explicit LineProcess(const std::vector<std::string>& command);

    /// Reads until a line holds the text; false when the program ends or 20 seconds pass first.
    bool await(const std::string& text);
    bool awaitEvent(const std::string& event) { return await("\"event\":\"" + event + "\""); }

    /// Ends it and returns its exit status.
    int end(int signal = SIGTERM);
    /// Waits for its end and returns its exit status; -1 when it does not come.
    int wait();
    void sendSignal(int signal) const { mProcess->sendSignal(signal); }

    std::string output;

private:
    UniqueFd mReader;
    std::unique_ptr<ChildProcess> mProcess;
    std::string mLine;
};

/// The value of "event" in each line.
std::vector<std::string> eventsIn(const std::string& output);

}  // namespace testsupport

#endif
