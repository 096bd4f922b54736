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

/// Whatever is missing, or of another shape than expected, says nothing. `status` may be null.
StatusPayload readStatus(json_object* status);

}  // namespace wfoal

#endif
