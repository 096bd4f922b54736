// SPDX-License-Identifier: Apache-2.0
//
// What the plug-in makes of a status of the connection manager, in words.
#ifndef VPNOALCTL_VERDICT_H
#define VPNOALCTL_VERDICT_H

#include <string>

#include "monitor/Timeline.h"

namespace vpnoalctl {

/// `boundName` is empty when the agent's socket is not bound.
TimelineEvent judgeStatus(const std::string& payload, const std::string& boundName);

}  // namespace vpnoalctl

#endif
