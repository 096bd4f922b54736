// SPDX-License-Identifier: Apache-2.0
//
// The system interface: collects the tunnel's configuration in two JSON requests and hands them to the platform's
// network-configuration library. Used on the agent's thread, but for the notify operations, which the event thread
// calls.
#ifndef SYSTEMINTERFACE_H
#define SYSTEMINTERFACE_H

#include <net/if.h>
#include <netinet/in.h>

#include <atomic>
#include <string>

#include "handles/Ioctl.h"
#include "handles/Json.h"
#include "kest/SystemPlugin.h"

/// The tunnel's device name is fixed, whatever name the agent passes.
constexpr char tunnelInterfaceName[] = "norvatun0";

/// A route to 0.0.0.0 was added since the last restore. One flag for all instances.
extern bool sDoesHaveADefaultGateway;

/// Prefix length of a dotted netmask: the position of its lowest set bit, also when it has gaps. 0 when it is no
/// address.
int ConvertNetmaskToPrefix(const char* netmask);

class SystemInterface : public KEST_SystemPlugin {
public:
    SystemInterface();

    bool SupportsInterface(const char* name, unsigned int version) override;
    ~SystemInterface() override;
    PluginResult GetLastErrorString(char* buffer, unsigned int size) override;
    PluginResult SetDNSDomain(const char* domain) override;
    PluginResult SetDNSServers(const char** servers) override;
    PluginResult SetSplitDNSDomains(const char** domains) override;
    PluginResult SetPacketFilterRule(const char* sourceAddress, const char* sourceMask, unsigned short sourcePort,
                                     const char* destinationAddress, const char* destinationMask,
                                     unsigned short destinationPort, KEST_FilterProtocol protocol,
                                     KEST_FilterApplyDirection direction, const char* interfaceName,
                                     KEST_FilterAction action) override;
    PluginResult SetSystemPluginCB(KEST_SystemPluginCB* callback) override;
    PluginResult ApplyConfiguration() override;
    PluginResult RestoreSystemConfiguration() override;
    PluginResult AddRoute(unsigned int count, KEST_SystemPluginRoute** routes) override;
    PluginResult DeleteRoute(unsigned int count, KEST_SystemPluginRoute** routes) override;
    PluginResult EnumerateRoutes(unsigned int& count, KEST_SystemPluginRoute** routes) override;
    PluginResult EnumerateNetworkInterfaces(unsigned int& count, KEST_NetworkInterface** interfaces) override;
    PluginResult SetTunnelParams(const char* interfaceName, const char* reserved1, const char* address,
                                 const char* netmask, const char* reserved2, const char* reserved3,
                                 unsigned int mtu) override;
    PluginResult SetProxy(KEST_ProxyType type, const char* value) override;
    PluginResult SetProxyExceptionList(const char** list) override;
    PluginResult ClearProxySettings() override;

    // Pass an event on to the agent's callback record, if there is one. Called on the event thread.
    virtual void notifyConnectionChange();
    virtual void notifyPowerResume();
    virtual void notifyPowerSuspended();

private:
    void resetJsonObjects();
    void resetJsonFirewallObject();
    void deleteFirewallSettings();
    bool addInterfaceInfoToJson();
    bool addAddressToJson(json_object* target, const char* key, in_addr address, bool isArray);
    bool addTunnelAddressToJson(int socket, const char* key, wfoal::IoctlNumber query, bool wanted);
    void addDnsDomain(const char* function, const char* domain);
    void requestIsIncomplete(const char* function);
    void saveDataForRecovery();
    PluginResult listInterfaces(const char* function, unsigned int& count, KEST_NetworkInterface** interfaces);
    bool isInterfaceValidForVpnToUse(int socket, ifreq& entry);
    void fillInInterfaceValues(int socket, KEST_NetworkInterface* object, ifreq& entry);
    bool getDefaultGatewayAddress(const char* interfaceName, std::string& gateway);

    JsonPtr mpNetIfObj;                    // the interface request being built
    json_object* mpIpv4Obj = nullptr;      // its "ipv4"; owned by mpNetIfObj
    json_object* mpRoutesArray = nullptr;  // "additionalIfRoutes" in mpIpv4Obj; null until the first route
    JsonPtr mpFirewallObj;                 // the packet-filter request being built
    bool mbConfigApplied = false;
    std::atomic<KEST_SystemPluginCB*> mpSystemPluginCB{nullptr};  // the agent's
    bool mbIncomplete = false;  // memory ran out while the requests were filled: they are not applied
};

#endif
