// SPDX-License-Identifier: Apache-2.0
#include "tunnel/FilterState.h"

#ifdef WFOAL_HOST_PLATFORM
#include <cerrno>
#include <cstring>

#include "kernel/FilterTable.h"
#endif

namespace vpnoalctl {

#ifdef WFOAL_HOST_PLATFORM

namespace {

// See askForTable().
int askForFilter()
{
    return askForTable(tunnelFilter, [](const nlmsghdr&) {});
}

}  // namespace

std::string filterFault()
{
    const int error = askForFilter();
    return error == 0 || error == ENOENT ? "" : std::strerror(error);
}

FilterState filterState()
{
    switch (askForFilter()) {
    case 0: return FilterState::Installed;
    case ENOENT: return FilterState::Missing;
    default: return FilterState::Unknown;
    }
}

#else

std::string filterFault()
{
    return "the device's own platform filters";
}

FilterState filterState()
{
    return FilterState::Unknown;
}

#endif

}  // namespace vpnoalctl
