// SPDX-License-Identifier: Apache-2.0
//
// The leak check that the address sanitizer makes when a process ends. Nothing in other builds.
#ifndef WFOAL_TEST_ENDLEAKCHECK_H
#define WFOAL_TEST_ENDLEAKCHECK_H

namespace testsupport {

/// This process ends without the check, and so do those that it forks from now on. For processes in which it cannot
/// work; each caller says why.
void endWithoutLeakCheck();

}  // namespace testsupport

#endif
