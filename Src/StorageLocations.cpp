// SPDX-License-Identifier: Apache-2.0
#include "StorageLocations.h"

#include <cstdint>
#include <iterator>
#include <limits>

namespace wfoal {

namespace {

// Row number is the location's value.
const char* const sDirectories[] = {
    "/tmp/vpn/main/",     // LOCATION_MAIN
    "/tmp/vpn/",          // LOCATION_ROOT
    "/tmp/vpn/user/",     // LOCATION_USER
    "/tmp/vpn/profile/",  // LOCATION_PROFILE
    "/tmp/vpn/l10n/",     // LOCATION_L10N
    "/tmp/vpn/script/",   // LOCATION_SCRIPT
    "/tmp/vpn/temp/",     // LOCATION_TEMP
};

bool acceptIfBelow2GiB(int result, struct stat& status)
{
    if (result == 0 && status.st_size <= std::numeric_limits<std::int32_t>::max()) return true;
    status = {};
    return false;
}

}  // namespace

const char* locationToStr(KEST_FileLocation location)
{
    const auto row = static_cast<unsigned int>(location);
    return row < std::size(sDirectories) ? sDirectories[row] : "Invalid Location";
}

std::string storagePath(KEST_FileLocation location, const char* name)
{
    return std::string(locationToStr(location)).append(name);
}

bool fileStatus(const char* path, struct stat& status)
{
    status = {};
    return acceptIfBelow2GiB(::stat(path, &status), status);
}

bool fileStatus(int file, struct stat& status)
{
    status = {};
    return acceptIfBelow2GiB(::fstat(file, &status), status);
}

}  // namespace wfoal
