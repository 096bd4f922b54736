// SPDX-License-Identifier: Apache-2.0
//
// Running the driver process (netconfigDriver.cpp), plainly or with strace in charge of its system calls.
#ifndef WFOAL_TEST_DRIVER_H
#define WFOAL_TEST_DRIVER_H

#include <string>

namespace testsupport {

/// The shell command that makes these requests, and logs to standard error.
std::string driver(const std::string& steps);

/// The same under strace with the given options. Leaks are not looked for, as the sanitizer cannot do it there.
std::string driverUnderStrace(const std::string& options, const std::string& steps);

bool hasStrace();

}  // namespace testsupport

#define NEEDS_STRACE() \
    if (!testsupport::hasStrace()) GTEST_SKIP() << "strace is not installed"

#endif
