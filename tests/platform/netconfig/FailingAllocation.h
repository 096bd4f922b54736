// SPDX-License-Identifier: Apache-2.0
//
// Operator new of the whole executable, with one allocation that fails when it is told to.
#ifndef WFOAL_TEST_FAILINGALLOCATION_H
#define WFOAL_TEST_FAILINGALLOCATION_H

namespace testsupport {

/// From now on the `number`th allocation (from 1) throws std::bad_alloc; 0: none.
void failAllocation(long number);

}  // namespace testsupport

#endif
