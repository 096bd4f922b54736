// SPDX-License-Identifier: Apache-2.0
//
// An allocation by `new` that fails. A test executable gets it by having FailingNew.cpp among its sources.
#ifndef FAILINGNEW_H
#define FAILINGNEW_H

#include <cstddef>

namespace testsupport {

/// The next allocation of this many bytes fails, and sets this to 0. 0 for none.
extern std::size_t failingNew;

}  // namespace testsupport

#endif
