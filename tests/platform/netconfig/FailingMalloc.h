// SPDX-License-Identifier: Apache-2.0
//
// malloc() and its relatives of the whole process, libraries included, with one call that fails when it is told to.
// Under a sanitizer, which has its own, only operator new fails (FailingAllocation.h).
#ifndef WFOAL_TEST_FAILINGMALLOC_H
#define WFOAL_TEST_FAILINGMALLOC_H

namespace testsupport {

/// From now on the `number`th allocation (from 1) of any thread returns null; 0: none.
void failMalloc(long number);

}  // namespace testsupport

#endif
