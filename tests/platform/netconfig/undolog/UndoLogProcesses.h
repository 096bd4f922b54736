// SPDX-License-Identifier: Apache-2.0
//
// What the tests of the undo log share: another process that owns something, and what is in the folder.
#ifndef UNDOLOGPROCESSES_H
#define UNDOLOGPROCESSES_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "undolog/UndoLog.h"

namespace testsupport {

inline constexpr char undoLogFolder[] = "/run/vknetconfig";

/// The error as it was thrown, to be looked at later: looking at it takes the sanitizer a descriptor.
inline std::exception_ptr failureOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (...) {
        return std::current_exception();
    }
    return nullptr;
}

/// A process that owns a subject until it is killed.
class OtherProcess {
public:
    OtherProcess(const std::string& subject, const std::string& content)
    {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        mPid = fork();
        if (mPid == 0) {
            vknetconfig::UndoLog undoLog;
            {
                const auto lock = undoLog.lock(vknetconfig::UndoLog::Create::Yes);
                undoLog.own(subject);
                if (!content.empty()) undoLog.write(subject, content);
            }
            if (::write(ready[1], "x", 1) == 1) pause();
            _exit(1);
        }
        close(ready[1]);
        char byte = 0;
        EXPECT_EQ(::read(ready[0], &byte, 1), 1);
        close(ready[0]);
    }
    ~OtherProcess() { kill(); }
    pid_t pid() const { return mPid; }
    void kill()
    {
        if (mPid <= 0) return;
        ::kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
        mPid = 0;
    }

private:
    pid_t mPid = 0;
};

inline std::vector<std::string> claimAll(vknetconfig::UndoLog& undoLog)
{
    return undoLog.claimStaleEntries([](const std::string&) { return true; });
}

inline std::vector<std::string> filesLeft()
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(undoLogFolder))
        names.push_back(entry.path().filename());
    return names;
}

}  // namespace testsupport

#endif
