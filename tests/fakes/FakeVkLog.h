// SPDX-License-Identifier: Apache-2.0
//
// Recording log library. Usable from the moment static objects are constructed.
#ifndef FAKE_VKLOG_H
#define FAKE_VKLOG_H

#include <ostream>
#include <string>
#include <vector>

#include "VkLogLib.h"

namespace fakes {

struct LogLine {
    int level;
    std::string text;

    bool operator==(const LogLine& other) const { return level == other.level && text == other.text; }
};

inline std::ostream& operator<<(std::ostream& stream, const LogLine& line)
{
    return stream << line.level << ": " << line.text;
}

/// Everything printed since the last clear, in order, from all threads.
std::vector<LogLine> logLines();
std::vector<LogLine> logLines(int level);
/// Only what the calling thread printed.
std::vector<LogLine> logLinesOfThisThread();
void clearLog();

/// Enters each line in fakes::calls() as well, as "LOG LEVEL TEXT", so that a test sees the order across all fakes. Off
/// at first.
void recordLogInCalls(bool wanted);

/// The context that VkLogGetContext() hands out; its level is 7 at first.
VkLogContext& logContext();
/// While it lives, nothing is logged.
class ClosedLog {
public:
    ClosedLog() : mLevel(logContext().level) { logContext().level = -1; }
    ~ClosedLog() { logContext().level = mLevel; }
    ClosedLog(const ClosedLog&) = delete;
    ClosedLog& operator=(const ClosedLog&) = delete;

private:
    int mLevel;
};

/// The context that the last message was printed with.
const VkLogContext* lastContext();
/// What VkLogGetContext() returns; 0 at first.
void setLogContextResult(int result);
/// The name that was asked for last.
std::string logContextName();

}  // namespace fakes

#endif
