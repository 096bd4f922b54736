// SPDX-License-Identifier: Apache-2.0
//
// System calls that fail below every library: the kernel hands each call of a kind to a signal handler of this process,
// which counts it, and carries it out or lets it fail. Reaches calls that the C library makes for itself, as in
// fopen().
#ifndef WFOAL_TEST_KERNELFAULTS_H
#define WFOAL_TEST_KERNELFAULTS_H

#include <string>

namespace testsupport {

enum class KernelCall { Open, Read, Status, Count };

const char* nameOf(KernelCall call);

#ifdef __x86_64__
constexpr bool canCatchKernelCalls = true;
#else
constexpr bool canCatchKernelCalls = false;
#endif

/// Catches the calls of this thread from now on, until the process ends; programs started later would die of it.
/// Empty, or the reason why it cannot be.
std::string catchKernelCalls();

/// The calls `first` to `first + count - 1` of the kind fail with `error`, counted from now on and from 1.
void failKernelCalls(KernelCall call, long first, long count, int error);

/// Ends that, and returns how many calls of the kind there were.
long endKernelFaults();

}  // namespace testsupport

#endif
