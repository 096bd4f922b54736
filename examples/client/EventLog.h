// SPDX-License-Identifier: Apache-2.0
//
// What a connection does, as it does it: a line a step. For people in columns; for machines a JSON object with "time",
// "event", "milliseconds" since the step before, and the step's own keys.
#ifndef SAMPLECLIENT_EVENTLOG_H
#define SAMPLECLIENT_EVENTLOG_H

#include <chrono>
#include <initializer_list>
#include <string>
#include <utility>

#include "Output.h"

namespace sampleclient {

class EventLog {
public:
    using Field = std::pair<const char*, std::string>;

    explicit EventLog(vpnoalctl::Output& output) : mOutput(output) {}

    /// `text` says it for people.
    void add(const char* event, const std::string& text, std::initializer_list<Field> fields = {},
             vpnoalctl::Style style = vpnoalctl::Style::Plain);
    /// The same with an object whose keys are added to the event's own.
    void add(const char* event, const std::string& text, const JsonPtr& details);
    /// The next step's time begins now: what came before was waiting.
    void restartClock() { mLast = Clock::now(); }

    vpnoalctl::Output& output() { return mOutput; }

private:
    using Clock = std::chrono::steady_clock;

    JsonPtr begin(const char* event, double milliseconds) const;
    double lap();
    void finish(const char* event, const std::string& text, double milliseconds, const JsonPtr& object,
                vpnoalctl::Style style);

    vpnoalctl::Output& mOutput;
    Clock::time_point mLast = Clock::now();
};

}  // namespace sampleclient

#endif
