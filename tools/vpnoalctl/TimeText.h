// SPDX-License-Identifier: Apache-2.0
//
// The present moment in local time, to the millisecond.
#ifndef VPNOALCTL_TIMETEXT_H
#define VPNOALCTL_TIMETEXT_H

#include <string>

namespace vpnoalctl {

/// "09:30:00.123".
std::string timeForPeople();
/// "2024-05-17T09:30:00.123+0200".
std::string timeForMachines();

}  // namespace vpnoalctl

#endif
