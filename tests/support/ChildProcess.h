// SPDX-License-Identifier: Apache-2.0
//
// Programs that a test runs beside itself. A ChildProcess belongs to the test and ends with it; use it on one thread.
// Everything here throws std::runtime_error when the system refuses.
#ifndef WFOAL_TEST_CHILDPROCESS_H
#define WFOAL_TEST_CHILDPROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "handles/UniqueFd.h"

namespace testsupport {

/// A running program. The destructor ends it and waits for it; it is also killed when the thread that started it ends.
class ChildProcess {
public:
    ChildProcess() = default;
    /// Starts `command` (looked up in PATH) with its output in `output`, a descriptor, or in this process's own when
    /// that is -1.
    explicit ChildProcess(const std::vector<std::string>& command, int output = -1);
    ChildProcess(ChildProcess&& other) noexcept;
    ChildProcess& operator=(ChildProcess&& other) noexcept;
    ~ChildProcess();

    /// Its process id, or -1 once it has been waited for.
    pid_t pid() const { return mPid; }
    /// Becomes readable for poll() when the program has ended.
    int endDescriptor() const { return mEnd.get(); }
    /// True while the program runs.
    bool running() const;
    void sendSignal(int signal) const;
    /// Waits for the end. Returns the exit code, or 128 plus the number of the signal that ended it.
    int wait();
    /// Asks the program to end, kills it after ten seconds, and waits for it. Harmless when it has ended.
    void stop();

private:
    pid_t mPid = -1;
    UniqueFd mEnd;
};

/// What a finished command left: its exit code as ChildProcess::wait() has it, and all its output.
struct CommandResult {
    int status = -1;
    std::string output;
};

/// Runs a command (looked up in PATH) to its end, for example an independent tool that looks at the same kernel.
CommandResult runCommand(const std::vector<std::string>& command);

}  // namespace testsupport

#endif
