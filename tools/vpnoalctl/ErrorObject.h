// SPDX-License-Identifier: Apache-2.0
//
// An error for machines: {"error":"...","key":"...","remedy":"..."}
#ifndef VPNOALCTL_ERROROBJECT_H
#define VPNOALCTL_ERROROBJECT_H

#include "CommandError.h"
#include "handles/Json.h"

namespace vpnoalctl {

JsonPtr errorObject(const CommandError& error);

}  // namespace vpnoalctl

#endif
