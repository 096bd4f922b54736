// SPDX-License-Identifier: Apache-2.0
#include "monitor/Timeline.h"

#include <fmt/format.h>

#include "Json.h"
#include "TimeText.h"

namespace vpnoalctl {

void Timeline::add(const TimelineEvent& event)
{
    if (mOutput.json()) {
        const JsonPtr line = newObject();
        addText(line, "time", timeForMachines());
        addText(line, "source", event.source);
        addText(line, "event", event.event);
        if (!event.decision.empty()) addText(line, "decision", event.decision);
        if (!event.reason.empty()) addText(line, "reason", event.reason);
        mOutput.value(line);
    } else {
        std::string text = fmt::format("{}  {:<8}  {}", timeForPeople(), event.source, event.event);
        if (!event.decision.empty()) text += "  ->  " + event.decision;
        if (!event.reason.empty()) text += " (" + event.reason + ")";
        mOutput.line(text, event.decision == notifyDecision ? Style::Warning : Style::Plain);
    }
    mOutput.flush();
}

}  // namespace vpnoalctl
