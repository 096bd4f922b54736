// SPDX-License-Identifier: Apache-2.0
//
// Explains what the plug-in decides for a status of the connection manager.
#ifndef VPNOALCTL_STATUSEXPLANATION_H
#define VPNOALCTL_STATUSEXPLANATION_H

#include <string>

#include "monitor/Timeline.h"

namespace vpnoalctl {

/// `boundName` is empty when the agent's socket is not bound.
TimelineEvent explainStatus(const std::string& payload, const std::string& boundName);

}  // namespace vpnoalctl

#endif
