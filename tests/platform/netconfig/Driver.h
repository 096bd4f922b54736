// SPDX-License-Identifier: Apache-2.0
//
// Running the driver process (netconfigDriver.cpp), plainly or with strace in charge of its system calls.
#ifndef WFOAL_TEST_DRIVER_H
#define WFOAL_TEST_DRIVER_H

#include <map>
#include <string>

namespace testsupport {

/// The shell command that makes these requests, and logs to standard error.
std::string driver(const std::string& steps);

/// The same under strace with the given options. Leaks are not looked for, as the sanitizer cannot do it there.
std::string driverUnderStrace(const std::string& options, const std::string& steps);

/// What strace is to be told to trace a call: 32-bit machines have two of some, and programs use the second.
std::string tracedCall(const std::string& call);

bool hasStrace();

/// From one number of a system call to the next one, in tests that kill or fail each: all of them; under a sanitizer,
/// where each process takes long to start, a sample.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int sweepStep = 3;
#else
constexpr int sweepStep = 1;
#endif

/// How often the steps make each system call that changes something, or that a change follows.
std::map<std::string, int> callsOf(const std::string& steps);

/// Runs the steps and kills them before that system call of that number, counted from 1.
void killBefore(const std::string& call, int number, const std::string& steps);

}  // namespace testsupport

#define NEEDS_STRACE() \
    if (!testsupport::hasStrace()) GTEST_SKIP() << "strace is not installed"

#endif
