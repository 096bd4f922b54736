// SPDX-License-Identifier: Apache-2.0
//
// The connection manager's status as JSON: only the four texts that a decision needs are read.
#ifndef WFOAL_STATUSPAYLOAD_H
#define WFOAL_STATUSPAYLOAD_H

#include "Decisions/NetworkDecision.h"
#include "handles/Json.h"

namespace wfoal {

struct StatusPayload {
    NetworkFlags wifi;
    NetworkFlags wan;
};

/// A value that is missing or has another shape counts as unknown. `status` may be null.
StatusPayload readStatus(json_object* status);

}  // namespace wfoal

#endif
