// SPDX-License-Identifier: Apache-2.0
//
// What happened when: a line an event, for people in columns, for machines as a JSON object.
#ifndef VPNOALCTL_TIMELINE_H
#define VPNOALCTL_TIMELINE_H

#include <string>

#include "Output.h"

namespace vpnoalctl {

/// The decision of a status that the agent is notified of.
constexpr char notifyDecision[] = "notify the agent";

struct TimelineEvent {
    std::string source;    // "network", "plug-in", ...
    std::string event;     // what happened
    std::string decision;  // what follows from it; empty when nothing had to be decided
    std::string reason;    // why
};

class Timeline {
public:
    explicit Timeline(Output& output) : mOutput(output) {}
    void add(const TimelineEvent& event);

private:
    Output& mOutput;
};

}  // namespace vpnoalctl

#endif
