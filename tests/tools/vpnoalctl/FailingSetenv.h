// SPDX-License-Identifier: Apache-2.0
//
// setenv() that fails when a test says so. The program is linked with --wrap=setenv and includes this once.
#ifndef WFOAL_TEST_FAILINGSETENV_H
#define WFOAL_TEST_FAILINGSETENV_H

#include <cerrno>
#include <cstdlib>

namespace testsupport {

inline bool setenvHasMemory = true;

}  // namespace testsupport

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the names that the linker gives
extern "C" int __real_setenv(const char* name, const char* value, int overwrite);
extern "C" int __wrap_setenv(const char* name, const char* value, int overwrite);
extern "C" int __wrap_setenv(const char* name, const char* value, int overwrite)
{
    if (testsupport::setenvHasMemory) return __real_setenv(name, value, overwrite);
    errno = ENOMEM;
    return -1;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

#endif
