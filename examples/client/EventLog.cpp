// SPDX-License-Identifier: Apache-2.0
#include "client/EventLog.h"

#include <fmt/format.h>

#include "Json.h"
#include "TimeText.h"

using namespace vpnoalctl;

namespace sampleclient {

double EventLog::lap()
{
    const auto now = Clock::now();
    const double milliseconds = std::chrono::duration<double, std::milli>(now - mLast).count();
    mLast = now;
    return milliseconds;
}

JsonPtr EventLog::begin(const char* event, double milliseconds) const
{
    JsonPtr object = newObject();
    addText(object, "time", timeForMachines());
    addText(object, "event", event);
    addDecimal(object, "milliseconds", milliseconds);
    return object;
}

void EventLog::finish(const char* event, const std::string& text, double milliseconds, const JsonPtr& object,
                      Style style)
{
    mOutput.value(object);
    mOutput.line(fmt::format("{}  {:<15}  {}  ({:.1f} ms)", timeForPeople(), event, text, milliseconds), style);
    mOutput.flush();
}

void EventLog::add(const char* event, const std::string& text, std::initializer_list<Field> fields, Style style)
{
    const double milliseconds = lap();
    const JsonPtr object = begin(event, milliseconds);
    for (const auto& [key, value] : fields)
        addText(object, key, value);
    finish(event, text, milliseconds, object, style);
}

void EventLog::add(const char* event, const std::string& text, const JsonPtr& details)
{
    const double milliseconds = lap();
    const JsonPtr object = begin(event, milliseconds);
    addAll(object, details);
    finish(event, text, milliseconds, object, Style::Good);
}

}  // namespace sampleclient
