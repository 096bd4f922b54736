// SPDX-License-Identifier: Apache-2.0
//
// The configuration cycle: collect, apply, restore.
#include <arpa/inet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include "JsonFields.h"
#include "JsonText.h"
#include "Log.h"
#include "SystemInterface.h"
#include "VkNetConfigLib.h"

bool sDoesHaveADefaultGateway = false;

SystemInterface::SystemInterface()
{
    resetJsonObjects();
}

SystemInterface::~SystemInterface()
{
    WFOAL_DEBUG("SystemInterface::%s: ~SystemInterface() called Cleaning up Config", __func__);
    SystemInterface::RestoreSystemConfiguration();
}

void SystemInterface::resetJsonObjects()
{
    mbIncomplete = false;
    mpNetIfObj.reset(json_object_new_object());
    mpIpv4Obj = json_object_new_object();
    mpRoutesArray = nullptr;
    if (!wfoal::addField(mpNetIfObj.get(), "ipv4", mpIpv4Obj)) {
        mpIpv4Obj = nullptr;
        requestIsIncomplete(__func__);
    }
    resetJsonFirewallObject();
}

// Refuse an incomplete configuration: without one of its routes or rules, traffic would leave beside the tunnel.
void SystemInterface::requestIsIncomplete(const char* function)
{
    mbIncomplete = true;
    WFOAL_ERROR("SystemInterface::%s: Out of memory, the pending configuration is incomplete", function);
}

PluginResult SystemInterface::SetTunnelParams(const char* interfaceName, const char*, const char* address,
                                              const char* netmask, const char*, const char*, unsigned int mtu)
{
    WFOAL_DEBUG("SystemInterface::%s called!! %s(%s/%s)", __func__, interfaceName, address, netmask);
    if (interfaceName != nullptr) WFOAL_DEBUG("SystemInterface::%s   Interface: %s", __func__, interfaceName);
    if (address != nullptr) WFOAL_DEBUG("SystemInterface::%s   Address:   %s", __func__, address);
    if (netmask != nullptr) WFOAL_DEBUG("SystemInterface::%s   Mask:      %s", __func__, netmask);
    WFOAL_DEBUG("SystemInterface::%s   MTU:       %u ", __func__, mtu);
    return PLUGIN_SUCCESS;
}

bool SystemInterface::addAddressToJson(json_object* target, const char* key, in_addr address, bool isArray)
{
    char hex[2 + 2 * sizeof(unsigned long) + 1];
    std::snprintf(hex, sizeof hex, "0x%.8lx", static_cast<unsigned long>(address.s_addr));
    json_object* text = json_object_new_string(hex);
    if (!(isArray ? wfoal::addElement(target, text) : wfoal::setField(target, key, text))) {
        WFOAL_ERROR("SystemInterface::%s: Error Allocation %s Address String", __func__, key);
        return false;
    }
    WFOAL_DEBUG("SystemInterface::%s: %s Address is %s(%s)", __func__, key, inet_ntoa(address), hex);
    return true;
}

// Replace a key that an earlier failed apply has added, or remove it when it no longer applies.
bool SystemInterface::addTunnelAddressToJson(int socket, const char* key, wfoal::IoctlNumber query, bool wanted)
{
    ifreq request{};
    std::memcpy(request.ifr_name, tunnelInterfaceName, sizeof tunnelInterfaceName);
    if (!wanted || ioctl(socket, query, &request) != 0) {
        json_object_object_del(mpIpv4Obj, key);
        return true;
    }
    sockaddr_in address{};
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    return addAddressToJson(mpIpv4Obj, key, address.sin_addr, false);
}

bool SystemInterface::addInterfaceInfoToJson()
{
    json_object* request = mpNetIfObj.get();
    if (request == nullptr || mpIpv4Obj == nullptr) return false;

    JsonPtr usage(json_object_new_array());
    bool isWhole = wfoal::addElement(usage.get(), json_object_new_string("internet"));
    isWhole = isWhole && wfoal::setText(request, "ifName", tunnelInterfaceName);
    isWhole = isWhole && wfoal::setField(request, "ifPriority", json_object_new_int(5));
    isWhole = isWhole && wfoal::setText(request, "networkTechnology", "vpn");
    isWhole = isWhole && wfoal::setText(request, "networkScope", "wan");
    isWhole = isWhole && wfoal::setField(request, "networkUsage", usage.release());

    // Each apply keeps its descriptor open, and descriptor 0 counts as a failure, for compatibility.
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool usable = descriptor > 0;
    if (!usable) WFOAL_ERROR("SystemInterface::%s: Error Establishing Socket", __func__);
    isWhole = addTunnelAddressToJson(descriptor, "ip", SIOCGIFADDR, usable) && isWhole;
    isWhole = addTunnelAddressToJson(descriptor, "netmask", SIOCGIFNETMASK, usable) && isWhole;
    return addTunnelAddressToJson(descriptor, "gateway", SIOCGIFDSTADDR, usable && sDoesHaveADefaultGateway) && isWhole;
}

PluginResult SystemInterface::ApplyConfiguration()
{
    WFOAL_DEBUG("SystemInterface::%s called!!!", __func__);
    const CStringPtr filter = wfoal::completeText(mpFirewallObj.get());
    if (mbIncomplete || (mpFirewallObj && !filter)) {
        WFOAL_ERROR("SystemInterface::%s: Out of memory, the configuration is incomplete and not applied", __func__);
        return PLUGIN_FAILURE;
    }
    // Install the packet filter before the interface carries traffic. It stays when the interface request fails.
    if (mpFirewallObj) {
        deleteFirewallSettings();
        VkFirewallFullCtrl(filter.get());
    }
    if (!mpNetIfObj) return PLUGIN_FAILURE;

    const CStringPtr request = addInterfaceInfoToJson() ? wfoal::completeText(mpNetIfObj.get()) : nullptr;
    if (!request || CmAddInterfaceCfg2(request.get()) != 0) {
        WFOAL_ERROR("SystemInterface::%s: Failed to Add Interface", __func__);
        return PLUGIN_FAILURE;
    }
    WFOAL_DEBUG("SystemInterface::%s: interface configuration: %s", __func__, request.get());
    WFOAL_INFO("SystemInterface::%s: Brought Up Vpn Interface", __func__);
    if (auto* callback = mpSystemPluginCB.load()) callback->OnConfigurationChange();
    mbConfigApplied = true;
    saveDataForRecovery();
    resetJsonObjects();
    return PLUGIN_SUCCESS;
}

PluginResult SystemInterface::RestoreSystemConfiguration()
{
    WFOAL_DEBUG("SystemInterface::%s called!!!", __func__);
    CmDelInterfaceCfg(tunnelInterfaceName);
    deleteFirewallSettings();
    mbConfigApplied = false;
    sDoesHaveADefaultGateway = false;
    if (mbIncomplete) resetJsonObjects();  // else the pending requests stay
    if (auto* callback = mpSystemPluginCB.load()) callback->OnConfigurationChange();
    return PLUGIN_SUCCESS;
}
