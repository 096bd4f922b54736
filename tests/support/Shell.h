// SPDX-License-Identifier: Apache-2.0
//
// Commands of other tools, inside the test's namespaces.
#ifndef WFOAL_TEST_SHELL_H
#define WFOAL_TEST_SHELL_H

#include <string>

namespace testsupport {

/// What the command prints. Throws std::runtime_error with its output when it does not end with 0.
std::string shell(const std::string& command);

/// A pair of virtual Ethernet devices, both up; the first one with an address ("10.1.0.2/24") unless it is null.
void addVethPair(const std::string& name, const std::string& peer, const char* address);

}  // namespace testsupport

#endif
