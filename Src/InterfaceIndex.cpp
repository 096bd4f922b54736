// SPDX-License-Identifier: Apache-2.0
#include "InterfaceIndex.h"

#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "Log.h"
#include "handles/UniqueFd.h"

std::string getIfNameFromIndex(int index)
{
    const UniqueFd descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!descriptor.valid()) {
        WFOAL_ERROR("%s: socket err %d\n", __func__, errno);
        return {};
    }
    ifreq request{};
    request.ifr_ifindex = index;
    if (ioctl(descriptor.get(), SIOCGIFNAME, &request) != 0) {
        WFOAL_ERROR("%s: ioctl err %d", __func__, errno);
        return {};
    }
    std::string name(request.ifr_name, strnlen(request.ifr_name, sizeof request.ifr_name));
    WFOAL_DEBUG("%s: index for %s is %d", __func__, name.c_str(), index);
    return name;
}

namespace wfoal {

ifreq requestFor(const std::string& name)
{
    ifreq request{};
    name.copy(request.ifr_name, sizeof request.ifr_name);
    return request;
}

const std::string& InterfaceNameCache::nameOf(unsigned index)
{
    if (mHasLast && mLastIndex == index) return mLastName;
    mHasLast = true;
    mLastIndex = index;
    const auto found = mNames.find(index);
    if (found != mNames.end()) return mLastName = found->second;
    char name[IF_NAMESIZE + 1] = {};
    if_indextoname(index, name);
    mLastName = name;  // short enough to need no memory
    try {
        mNames.emplace(index, mLastName);
    } catch (const std::bad_alloc&) {
    }
    return mLastName;
}

}  // namespace wfoal
