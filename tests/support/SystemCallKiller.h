// SPDX-License-Identifier: Apache-2.0
//
// Kills a process at a chosen system call, for tests of what a crash leaves behind. The work runs in a forked child,
// which must not need threads of its own; the caller waits for it.
#ifndef WFOAL_TEST_SYSTEMCALLKILLER_H
#define WFOAL_TEST_SYSTEMCALLKILLER_H

#include <functional>
#include <optional>

namespace testsupport {

/// Runs `work` in a child and kills the child with SIGKILL at its `step`-th stop, counted from 0: each system call that
/// can change something outside the process has one stop before and one after it. Returns whether it was killed, false
/// when the work ended first; nothing when the child cannot be traced here.
std::optional<bool> runKilledAt(int step, const std::function<void()>& work);

}  // namespace testsupport

#endif
