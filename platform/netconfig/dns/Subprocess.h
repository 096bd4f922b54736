// SPDX-License-Identifier: Apache-2.0
//
// Runs a program of the system to its end: no shell, no files of ours open in it, and never longer than it may take.
// Thread-safe.
#ifndef VKNETCONFIG_SUBPROCESS_H
#define VKNETCONFIG_SUBPROCESS_H

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace vknetconfig {

struct SubprocessResult {
    enum class Outcome { Exited, NotStarted, Killed, TimedOut, Unknown };
    Outcome outcome = Outcome::NotStarted;
    int code = 0;        // when it exited: its exit code; when it was not started: an errno value
    std::string output;  // the first line of what it printed

    bool succeeded() const { return outcome == Outcome::Exited && code == 0; }
    /// "exit code 3: no such interface", for an error line.
    std::string reason() const;
};

/// Runs `command` with `input` as its standard input. Its program is looked up in PATH and then where the system's own
/// tools are. A program that takes too long is killed, with all it started in its process group.
SubprocessResult runSubprocess(const std::vector<std::string>& command, std::string_view input,
                               std::chrono::milliseconds longest);

}  // namespace vknetconfig

#endif
