// SPDX-License-Identifier: Apache-2.0
#include "SocketInterface.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "Decisions/InterfaceChoice.h"
#include "InterfaceIndex.h"
#include "Log.h"
#include "NetLinkHelper.h"
#include "PluginIdentifier.h"
#include "handles/UniqueFd.h"

namespace {

// The device option's value is an interface request of a 32-bit device, whole, on every architecture.
constexpr socklen_t deviceOptionLength = 32;
static_assert(deviceOptionLength <= sizeof(ifreq), "no byte outside of the request is passed");

}  // namespace

bool SocketInterface::SupportsInterface(const char* name, unsigned int)
{
    WFOAL_DEBUG("%s: Called!!", __func__);
    return wfoal::isInterfaceName(name, KEST_SOCKET_INTERFACE);
}

PluginResult SocketInterface::GetPreferredInterface(unsigned int& size, char* buffer, const char*)
{
    WFOAL_DEBUG("%s: Called!!", __func__);
    const std::string name = getBestInterfaceId();
    if (name.empty()) {
        WFOAL_DEBUG("%s: No interface found so letting agent handle it!!", __func__);
    } else if (name.size() >= size) {
        size = static_cast<unsigned int>(name.size() + 1);
        return PLUGIN_BUFFER_TOO_SMALL;
    }
    if (buffer == nullptr && !name.empty()) size = static_cast<unsigned int>(name.size() + 1);
    if (buffer == nullptr || size == 0) return PLUGIN_SUCCESS;
    std::memset(buffer, 0, size);
    std::memcpy(buffer, name.data(), name.size());
    return PLUGIN_SUCCESS;
}

PluginResult SocketInterface::BindToInterface(const char*, unsigned int socket)
{
    WFOAL_DEBUG("%s: Called!!", __func__);
    // A device binding that was made stays, for compatibility.
    const auto fail = [this]() -> PluginResult {
        mBoundInterface.clear();
        return PLUGIN_FAILURE;
    };
    const std::string name = getBestInterfaceId();
    if (name.empty()) {
        WFOAL_ERROR("%s: Failed to get the best interface", __func__);
        return fail();
    }
    const int descriptor = static_cast<int>(socket);
    const ifreq device = wfoal::requestFor(name);
    if (setsockopt(descriptor, SOL_SOCKET, SO_BINDTODEVICE, &device, deviceOptionLength) < 0) {
        WFOAL_ERROR("%s: SO_BINDTODEVICE failed: %s", __func__, std::strerror(errno));
        return fail();
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    if (!getIfAddress(name, address)) {
        WFOAL_ERROR("%s: Failed to get interface ip address", __func__);
        return fail();
    }
    if (bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        WFOAL_ERROR("%s: Bind failed: %s", __func__, std::strerror(errno));
        return fail();
    }
    mBoundInterface = name;
    WFOAL_INFO("%s: Bound to : %s, with local IP Addr: %s", __func__, name.c_str(), inet_ntoa(address.sin_addr));
    return PLUGIN_SUCCESS;
}

PluginResult SocketInterface::GetLastErrorString(char*, unsigned int)
{
    return PLUGIN_BUFFER_TOO_SMALL;
}

std::string& SocketInterface::getBoundInterface()
{
    return mBoundInterface;
}

std::string SocketInterface::getBestInterfaceId()
{
    std::string name;
    if (const RoutingTableListPtr routes{sNlHelper.getRoutingTableList()}) {
        WFOAL_DEBUG("%s: Number of Routes got from the Routing Table: %d", __func__, routes->len);
        const auto* records = reinterpret_cast<const RouteInfo* const*>(routes->pdata);
        name = wfoal::chooseInterface(records, routes->len, [](std::uint32_t index) {
                   return getIfNameFromIndex(static_cast<int>(index));
               }).name;
    }
    WFOAL_DEBUG("%s: Best Interface %s", __func__, name.empty() ? "<none>" : name.c_str());
    return name;
}

bool SocketInterface::getIfAddress(const std::string& name, sockaddr_in& address)
{
    // Descriptor 0 counts as a failure, for compatibility.
    const UniqueFd descriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (descriptor.get() < 1) return false;
    ifreq request = wfoal::requestFor(name);
    if (ioctl(descriptor.get(), SIOCGIFADDR, &request) != 0) return false;
    sockaddr_in answer;
    std::memcpy(&answer, &request.ifr_addr, sizeof answer);
    address.sin_addr = answer.sin_addr;
    return true;
}
