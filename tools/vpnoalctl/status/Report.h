// SPDX-License-Identifier: Apache-2.0
//
// The status as it is printed, for people and for machines.
#ifndef VPNOALCTL_REPORT_H
#define VPNOALCTL_REPORT_H

#include "Output.h"
#include "status/Comparison.h"

namespace vpnoalctl {

JsonPtr statusToJson(const Status& status);

/// A table, then the notes.
void printStatus(Output& output, const Status& status);

}  // namespace vpnoalctl

#endif
