// SPDX-License-Identifier: Apache-2.0
#include "monitor/Timeline.h"

#include <fmt/format.h>

#include <chrono>
#include <ctime>

#include "Json.h"

namespace vpnoalctl {

namespace {

// "2024-05-17T09:30:00.123+0200", or "09:30:00.123" for people.
std::string now(bool forPeople)
{
    const auto time = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()) % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char clock[32] = "";
    char zone[8] = "";
    std::strftime(clock, sizeof clock, forPeople ? "%H:%M:%S" : "%Y-%m-%dT%H:%M:%S", &local);
    std::strftime(zone, sizeof zone, "%z", &local);
    return fmt::format("{}.{:03}{}", clock, milliseconds.count(), forPeople ? "" : zone);
}

}  // namespace

void Timeline::add(const TimelineEvent& event)
{
    if (mOutput.json()) {
        const JsonPtr line = newObject();
        addText(line, "time", now(false));
        addText(line, "source", event.source);
        addText(line, "event", event.event);
        if (!event.decision.empty()) addText(line, "decision", event.decision);
        if (!event.reason.empty()) addText(line, "reason", event.reason);
        mOutput.value(line);
    } else {
        std::string text = fmt::format("{}  {:<8}  {}", now(true), event.source, event.event);
        if (!event.decision.empty()) text += "  ->  " + event.decision;
        if (!event.reason.empty()) text += " (" + event.reason + ")";
        mOutput.line(text, event.decision == "tell the agent" ? Style::Warning : Style::Plain);
    }
    mOutput.flush();
}

}  // namespace vpnoalctl
