// SPDX-License-Identifier: Apache-2.0
//
// Moments in local time: the present one to the millisecond, others to the second.
#ifndef VPNOALCTL_TIMETEXT_H
#define VPNOALCTL_TIMETEXT_H

#include <ctime>
#include <string>

namespace vpnoalctl {

/// "09:30:00.123".
std::string timeForPeople();
/// "2024-05-17T09:30:00.123+0200".
std::string timeForMachines();

/// "2024-05-17 09:30:00".
std::string timeForPeople(std::time_t moment);
/// "2024-05-17T09:30:00+0200".
std::string timeForMachines(std::time_t moment);

}  // namespace vpnoalctl

#endif
