// SPDX-License-Identifier: Apache-2.0
//
// The device's interfaces that a tunnel may use: found by name and flags, described with address, netmask and default
// gateway.
#include <arpa/inet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "Decisions/InterfaceNames.h"
#include "InterfaceIndex.h"
#include "Log.h"
#include "NetLinkHelper.h"
#include "SystemInterface.h"
#include "handles/UniqueFd.h"
#include "net/DottedAddress.h"

namespace {

// Interfaces after these are ignored, for compatibility.
constexpr std::size_t interfaceLimit = 20;

in_addr addressOf(const sockaddr& address)
{
    sockaddr_in inet;
    static_assert(sizeof inet == sizeof address, "an IPv4 address fits an interface request");
    std::memcpy(&inet, &address, sizeof inet);
    return inet.sin_addr;
}

bool isCandidate(const char* name)
{
    return isWiFi(name) || isWan(name) || isVirtual(name) || isUsbNet(name) || isBridge(name);
}

}  // namespace

bool SystemInterface::isInterfaceValidForVpnToUse(int socket, ifreq& entry)
{
    if (entry.ifr_addr.sa_family != AF_INET || !isCandidate(entry.ifr_name)) return false;
    WFOAL_DEBUG("%s: %s is valid", __func__, entry.ifr_name);
    ifreq request = wfoal::requestFor(entry.ifr_name);
    // An interface whose flags cannot be read is included.
    if (ioctl(socket, SIOCGIFFLAGS, &request) != 0) return true;
    if ((request.ifr_flags & IFF_LOOPBACK) != 0 || (request.ifr_flags & IFF_UP) == 0) {
        WFOAL_DEBUG("%s: %s became invalid", __func__, entry.ifr_name);
        return false;
    }
    WFOAL_DEBUG("%s: %s is still valid", __func__, entry.ifr_name);
    return true;
}

// Walks backwards without stopping at a match, so that the kernel's first route wins. The name of the route's interface
// only has to begin with the given one.
bool SystemInterface::getDefaultGatewayAddress(const char* interfaceName, std::string& gateway)
{
    const RoutingTableListPtr routes(sNlHelper.getRoutingTableList());
    if (!routes) return false;
    bool found = false;
    for (guint i = routes->len; i > 0; --i) {
        const auto& route = *static_cast<const RouteInfo*>(routes->pdata[i - 1]);
        if (!route.isDefaultRoute()) continue;
        if (!isIf(getIfNameFromIndex(static_cast<int>(route.oifIndex)).c_str(), interfaceName)) continue;
        gateway = wfoal::DottedAddress(route.gateway).text();
        found = true;
        WFOAL_DEBUG("SystemInterface::%s: For %s found default gateway of %s", __func__, interfaceName,
                    gateway.c_str());
    }
    return found;
}

void SystemInterface::fillInInterfaceValues(int socket, KEST_NetworkInterface* object, ifreq& entry)
{
    if (object == nullptr) return;
    object->SetAddress(wfoal::DottedAddress(addressOf(entry.ifr_addr)).text());
    if (ioctl(socket, SIOCGIFNETMASK, &entry) != 0) return;
    object->SetNetmask(wfoal::DottedAddress(addressOf(entry.ifr_netmask)).text());
    object->SetName(entry.ifr_name);
    std::string gateway;
    if (getDefaultGatewayAddress(entry.ifr_name, gateway)) object->SetGateway(gateway.c_str());
    object->SetReservedPair(0, 0);
    object->SetReservedValue(0);
}

PluginResult SystemInterface::listInterfaces(const char* function, unsigned int& count,
                                             KEST_NetworkInterface** interfaces)
{
    // Descriptor 0 counts as a failure, for compatibility.
    const UniqueFd control(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (control.get() < 1) {
        WFOAL_DEBUG("SystemInterface::%s: EnumerateNetworkInterfaces- cannot create udp socket", function);
        return PLUGIN_FAILURE;
    }
    ifreq entries[interfaceLimit] = {};
    ifconf list{};
    list.ifc_len = sizeof entries;
    list.ifc_req = entries;
    if (ioctl(control.get(), SIOCGIFCONF, &list) != 0) {
        WFOAL_DEBUG("SystemInterface::%s: EnumerateNetworkInterfaces- ioctl SIOCGIFCONF failed", function);
        return PLUGIN_FAILURE;
    }
    const std::size_t found = std::min(static_cast<std::size_t>(list.ifc_len) / sizeof(ifreq), interfaceLimit);
    unsigned int usable = 0;
    for (std::size_t i = 0; i < found; ++i) {
        ifreq& entry = entries[i];
        if (!isInterfaceValidForVpnToUse(control.get(), entry)) {
            WFOAL_DEBUG("SystemInterface::%s: Skipping %s as an available interface", function, entry.ifr_name);
            continue;
        }
        WFOAL_DEBUG("SystemInterface::%s: Adding %s to available interface list", function, entry.ifr_name);
        ++usable;
        if (interfaces != nullptr && usable <= count) {
            fillInInterfaceValues(control.get(), interfaces[usable - 1], entry);
        }
    }
    if (usable == 0) {
        WFOAL_DEBUG("SystemInterface::%s: There are no available user interfaces", function);
        return PLUGIN_FAILURE;
    }
    if (interfaces != nullptr && count >= usable) {
        WFOAL_DEBUG("SystemInterface::%s: ppNetInterfaces Filled in correctly", function);
        return PLUGIN_SUCCESS;
    }
    WFOAL_DEBUG("SystemInterface::%s: Buffer isn't big enough or network interface array wasn't found", function);
    count = usable;
    if (interfaces == nullptr) return PLUGIN_SUCCESS;
    // As many as there are interfaces, not as the caller had: the array has room for them.
    std::fill_n(interfaces, usable, nullptr);
    return PLUGIN_BUFFER_TOO_SMALL;
}

PluginResult SystemInterface::EnumerateNetworkInterfaces(unsigned int& count, KEST_NetworkInterface** interfaces)
{
    WFOAL_DEBUG("SystemInterface::%s: called Array Length Passed In: %i", __func__, count);
    const PluginResult result = listInterfaces(__func__, count, interfaces);
    WFOAL_DEBUG("SystemInterface::%s: Array Length Being Returned: %i", __func__, count);
    return result;
}
