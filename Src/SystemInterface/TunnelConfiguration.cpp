// SPDX-License-Identifier: Apache-2.0
//
// The configuration cycle: collect, apply, restore.
#include <arpa/inet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "Log.h"
#include "SystemInterface.h"
#include "VkNetConfigLib.h"
#include "handles/Glib.h"

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
    mpNetIfObj.reset(json_object_new_object());
    mpIpv4Obj = json_object_new_object();
    mpRoutesArray = nullptr;
    json_object_object_add(mpNetIfObj.get(), "ipv4", mpIpv4Obj);
    resetJsonFirewallObject();
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

void SystemInterface::addAddressToJson(json_object* target, const char* key, in_addr address, bool isArray)
{
    const GStringPtr hex(g_string_new(nullptr));
    if (!hex) {
        WFOAL_ERROR("SystemInterface::%s: Error Allocation %s Address String", __func__, key);
        return;
    }
    g_string_printf(hex.get(), "0x%.8lx", static_cast<unsigned long>(address.s_addr));
    json_object* text = json_object_new_string(hex->str);
    if (isArray) {
        json_object_array_add(target, text);
    } else {
        json_object_object_add(target, key, text);
    }
    WFOAL_DEBUG("SystemInterface::%s: %s Address is %s(%s)", __func__, key, inet_ntoa(address), hex->str);
}

// A key that an earlier failed apply left is replaced in place, or taken away when it no longer holds.
void SystemInterface::addTunnelAddressToJson(int socket, const char* key, unsigned long query, bool wanted)
{
    ifreq request{};
    std::memcpy(request.ifr_name, tunnelInterfaceName, sizeof tunnelInterfaceName);
    if (!wanted || ioctl(socket, query, &request) != 0) {
        json_object_object_del(mpIpv4Obj, key);
        return;
    }
    sockaddr_in address{};
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    addAddressToJson(mpIpv4Obj, key, address.sin_addr, false);
}

void SystemInterface::addInterfaceInfoToJson()
{
    json_object* request = mpNetIfObj.get();
    if (request == nullptr || mpIpv4Obj == nullptr) return;

    json_object_object_add(request, "ifName", json_object_new_string(tunnelInterfaceName));
    json_object_object_add(request, "ifPriority", json_object_new_int(5));
    json_object_object_add(request, "networkTechnology", json_object_new_string("vpn"));
    json_object_object_add(request, "networkScope", json_object_new_string("wan"));
    json_object* usage = json_object_new_array();
    json_object_object_add(request, "networkUsage", usage);
    json_object_array_add(usage, json_object_new_string("internet"));

    // Kept open on purpose, one descriptor an apply. Descriptor 0 counts as a failure, as it always has.
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool usable = descriptor > 0;
    if (!usable) WFOAL_ERROR("SystemInterface::%s: Error Establishing Socket", __func__);
    addTunnelAddressToJson(descriptor, "ip", SIOCGIFADDR, usable);
    addTunnelAddressToJson(descriptor, "netmask", SIOCGIFNETMASK, usable);
    addTunnelAddressToJson(descriptor, "gateway", SIOCGIFDSTADDR, usable && sDoesHaveADefaultGateway);
}

PluginResult SystemInterface::ApplyConfiguration()
{
    WFOAL_DEBUG("SystemInterface::%s called!!!", __func__);
    // The packet filter goes first, before the interface carries traffic, and stays when the interface request fails.
    if (mpFirewallObj) {
        deleteFirewallSettings();
        VkFirewallFullCtrl(json_object_to_json_string(mpFirewallObj.get()));
    }
    if (!mpNetIfObj) return PLUGIN_FAILURE;

    addInterfaceInfoToJson();
    const char* request = json_object_to_json_string(mpNetIfObj.get());
    if (CmAddInterfaceCfg2(request) != 0) {
        WFOAL_ERROR("SystemInterface::%s: Failed to Add Interface", __func__);
        return PLUGIN_FAILURE;
    }
    WFOAL_DEBUG("SystemInterface::%s: interface configuration: %s", __func__, request);
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
    if (auto* callback = mpSystemPluginCB.load()) callback->OnConfigurationChange();
    return PLUGIN_SUCCESS;
}
