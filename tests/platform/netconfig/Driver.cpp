// SPDX-License-Identifier: Apache-2.0
#include "Driver.h"

#include "KernelState.h"

namespace testsupport {

std::string driver(const std::string& steps)
{
    return "env VKLOG_TARGET=stderr " WFOAL_BUILD_DIR "/bin/netconfigDriver " + steps;
}

std::string driverUnderStrace(const std::string& options, const std::string& steps)
{
    return "ASAN_OPTIONS=detect_leaks=0 strace -f -qq " + options + " " + driver(steps);
}

bool hasStrace()
{
    return outputOf("strace -V").find("version") != std::string::npos;
}

}  // namespace testsupport
