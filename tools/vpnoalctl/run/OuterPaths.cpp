// SPDX-License-Identifier: Apache-2.0
#include "run/OuterPaths.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <memory>
#include <string_view>

#include "tunnel/TunDevice.h"

namespace vpnoalctl {

namespace {

struct AddressesReleaser {
    void operator()(ifaddrs* addresses) const { freeifaddrs(addresses); }
};

bool isUsable(const ifaddrs& entry)
{
    constexpr unsigned int carrying = IFF_UP | IFF_RUNNING;
    return entry.ifa_addr != nullptr && entry.ifa_addr->sa_family == AF_INET &&
           (entry.ifa_flags & carrying) == carrying && entry.ifa_name != std::string_view(tunnelDeviceName);
}

// Without an answer of the kernel those from before are taken to be there.
std::set<OuterPaths::Path> usablePaths(const std::set<OuterPaths::Path>& before)
{
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return before;
    const std::unique_ptr<ifaddrs, AddressesReleaser> owner(list);
    std::set<OuterPaths::Path> paths;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (!isUsable(*entry)) continue;
        paths.emplace(if_nametoindex(entry->ifa_name),
                      reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr.s_addr);
    }
    return paths;
}

}  // namespace

bool OuterPaths::takeLoss(const std::vector<RouteInfo>& routes)
{
    const std::set<Path> usable = usablePaths(mPaths);
    std::set<Path> remaining;
    for (const Path& path : usable) {
        const bool isOuter = std::any_of(routes.begin(), routes.end(), [&](const RouteInfo& route) {
            return route.isDefaultRoute() && route.oifIndex == path.first;
        });
        if (isOuter || mPaths.count(path) != 0) remaining.insert(path);
    }
    const bool isLost = !std::includes(remaining.begin(), remaining.end(), mPaths.begin(), mPaths.end());
    mPaths = std::move(remaining);
    return isLost;
}

}  // namespace vpnoalctl
