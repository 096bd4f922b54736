// SPDX-License-Identifier: Apache-2.0
//
// A question to the person at the terminal.
#ifndef SAMPLECLIENT_ASKUSER_H
#define SAMPLECLIENT_ASKUSER_H

#include <string>

#include "client/Waiter.h"

namespace sampleclient {

/// True when standard input is a terminal, so that somebody can answer.
bool canAskUser();

/// Prints the question on stderr and waits a minute for a line. True when it begins with "y". Throws Interrupted.
bool askUser(Waiter& waiter, const std::string& question);

}  // namespace sampleclient

#endif
