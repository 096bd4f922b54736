// SPDX-License-Identifier: Apache-2.0
//
// Programs that this process starts and waits for. They are waited for by descriptor, whatever the process does with
// SIGCHLD.
#ifndef WFOAL_SUBPROCESS_H
#define WFOAL_SUBPROCESS_H

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "handles/UniqueFd.h"

namespace wfoal {

struct SubprocessResult {
    enum class Outcome { Exited, NotStarted, Killed, TimedOut, Unknown };
    Outcome outcome = Outcome::NotStarted;
    int code = 0;        // when it exited: its exit code; killed: the signal; not started: an errno value
    std::string output;  // of runSubprocess(): the first line of what it printed

    bool succeeded() const { return outcome == Outcome::Exited && code == 0; }
    /// "exit code 3: no such interface", for an error line.
    std::string reason() const;
};

class Subprocess {
public:
    /// What a program shares with this process.
    enum class Sharing {
        All,      ///< environment, terminal and standard files; no signal that is blocked here is blocked there
        Nothing,  ///< PATH alone; a process group of its own, and the signals of a fresh process
    };
    struct Files {
        int input = -1;      ///< its standard input; -1: as here
        int output = -1;     ///< its standard output and standard error; -1: as here
        int inherited = -1;  ///< open in it under the same number; -1: none
    };

    /// Starts `command`: the path of a program, then its arguments. Throws std::system_error.
    Subprocess(const std::vector<std::string>& command, Sharing sharing, const Files& files);
    Subprocess(const Subprocess&) = delete;
    Subprocess& operator=(const Subprocess&) = delete;
    /// Ends the program.
    ~Subprocess() { end(); }

    /// Readable once the program has ended; -1 when that is known only by wait().
    int descriptor() const { return mProcess.get(); }
    /// Sends a signal, as long as the program runs. With Sharing::Nothing also to all that it started in its process
    /// group.
    void signal(int number) const;
    /// How it ended; none while it runs after this time.
    const std::optional<SubprocessResult>& wait(std::chrono::milliseconds longest);
    /// Asks the program to end: SIGTERM, and after five seconds SIGKILL. Returns how it ended.
    SubprocessResult end();
    /// Kills the program; with Sharing::Nothing also all that it started in its process group.
    SubprocessResult kill();

private:
    void reap();

    Sharing mSharing;
    pid_t mPid = -1;
    UniqueFd mProcess;
    std::optional<SubprocessResult> mResult;
};

/// The path of a program: as it is when it holds a slash, else from PATH and then from where the system's own tools
/// are. Throws std::system_error.
std::string findProgram(const std::string& program);

/// Runs `command` to its end, with `input` as its standard input and Sharing::Nothing. Its program is looked up in PATH
/// and then where the system's own tools are. A program that takes too long is killed. Thread-safe.
SubprocessResult runSubprocess(const std::vector<std::string>& command, std::string_view input,
                               std::chrono::milliseconds longest);

}  // namespace wfoal

#endif
