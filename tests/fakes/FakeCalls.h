// SPDX-License-Identifier: Apache-2.0
//
// One list for what all fakes were asked to do, so that a test sees the order across them: "FUNCTION ARGUMENTS".
#ifndef FAKE_CALLS_H
#define FAKE_CALLS_H

#include <string>
#include <vector>

namespace fakes {

void recordCall(const std::string& call);
std::vector<std::string> calls();
void clearCalls();

}  // namespace fakes

#endif
