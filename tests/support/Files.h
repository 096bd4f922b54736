// SPDX-License-Identifier: Apache-2.0
//
// Files and descriptors, as tests look at them.
#ifndef TESTSUPPORT_FILES_H
#define TESTSUPPORT_FILES_H

#include <set>
#include <string>

namespace testsupport {

/// The whole file; empty when it cannot be read.
std::string contentOf(const std::string& path);

/// Descriptors of this process that are open now.
std::set<int> openDescriptors();

}  // namespace testsupport

#endif
