// SPDX-License-Identifier: Apache-2.0
//
// A question to the person at the terminal.
#ifndef VPNOALCTL_ASKUSER_H
#define VPNOALCTL_ASKUSER_H

#include <string>

#include "connect/Waiter.h"

namespace vpnoalctl {

/// True when standard input is a terminal, so that somebody can answer.
bool canAskUser();

/// Prints the question on stderr and waits a minute for a line. True when it begins with "y". Throws Interrupted.
bool askUser(Waiter& waiter, const std::string& question);

}  // namespace vpnoalctl

#endif
