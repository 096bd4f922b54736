// SPDX-License-Identifier: Apache-2.0
//
// The system interface: the tunnel's configuration, routes, packet filter, the device's interfaces, and the callback
// record. All operations are called on the agent's own thread and block until they are done. Settings accumulate in
// the object until ApplyConfiguration() hands them to the platform.
#ifndef KEST_SYSTEMPLUGIN_H
#define KEST_SYSTEMPLUGIN_H

#include "NetworkInterface.h"
#include "Plugin.h"
#include "SystemPluginCB.h"
#include "SystemPluginRoute.h"

/// Protocol that a filter rule matches. Any other value matches every protocol.
enum KEST_FilterProtocol : int {
    FILTER_PROTOCOL_ANY = 0,
    FILTER_PROTOCOL_ICMP = 1,
    FILTER_PROTOCOL_TCP = 2,
    FILTER_PROTOCOL_UDP = 3
};

/// How a filter rule is bound to the named interface. Any other value means outgoing.
enum KEST_FilterApplyDirection : int {
    FILTER_DIRECTION_OUT = 0,
    FILTER_DIRECTION_IN = 1,
    FILTER_DIRECTION_BOTH = 2  ///< No binding: the interface name is ignored.
};

/// What a filter rule does with a packet. Any non-zero value drops it.
enum KEST_FilterAction : int { FILTER_ACTION_ACCEPT = 0, FILTER_ACTION_DROP = 1 };

/// Kind of proxy. The plug-in accepts proxy settings without looking at them.
enum KEST_ProxyType : int { PROXY_TYPE_NONE = 0, PROXY_TYPE_MANUAL = 1, PROXY_TYPE_AUTOMATIC = 2 };

class KEST_SystemPlugin : public Plugin {
public:
    bool SupportsInterface(const char* name, unsigned int version) override = 0;
    ~KEST_SystemPlugin() override {}

    /// Always PLUGIN_BUFFER_TOO_SMALL; the buffer is left alone. Look into the log instead.
    virtual PluginResult GetLastErrorString(char* buffer, unsigned int size) = 0;

    /// Appends one domain to the tunnel's DNS domains. Null changes nothing. Always PLUGIN_SUCCESS.
    virtual PluginResult SetDNSDomain(const char* domain) = 0;
    /// Sets the tunnel's DNS servers: a null-terminated list of dotted IPv4 addresses. The last call before an apply
    /// wins; an entry that is no IPv4 address is skipped. Null changes nothing. Always PLUGIN_SUCCESS.
    virtual PluginResult SetDNSServers(const char** servers) = 0;
    /// Appends a null-terminated list of domains to the tunnel's DNS domains. PLUGIN_FAILURE for a null list.
    virtual PluginResult SetSplitDNSDomains(const char** domains) = 0;

    /// Adds a packet-filter rule to the pending configuration. Addresses and masks are dotted text, null for any; port
    /// 0 is any port (host byte order). Nothing is checked here: the platform judges the rules when they are applied.
    /// Always PLUGIN_SUCCESS.
    virtual PluginResult SetPacketFilterRule(const char* sourceAddress, const char* sourceMask,
                                             unsigned short sourcePort, const char* destinationAddress,
                                             const char* destinationMask, unsigned short destinationPort,
                                             KEST_FilterProtocol protocol, KEST_FilterApplyDirection direction,
                                             const char* interfaceName, KEST_FilterAction action) = 0;

    /// Stores the callback record (not owned). PLUGIN_FAILURE for null, which also forgets an earlier one. Call it
    /// once, before events matter.
    virtual PluginResult SetSystemPluginCB(KEST_SystemPluginCB* callback) = 0;

    /// Replaces the packet filter, then hands the collected settings to the platform. The device "norvatun0" must
    /// already carry its address. On success the collected settings are emptied; on PLUGIN_FAILURE they stay and the
    /// packet filter is already installed.
    virtual PluginResult ApplyConfiguration() = 0;
    /// Removes the tunnel's configuration and the packet filter, whatever the state. Always PLUGIN_SUCCESS.
    virtual PluginResult RestoreSystemConfiguration() = 0;

    /// Adds routes to the pending configuration, up to `count` or the first null pointer. Always PLUGIN_SUCCESS.
    virtual PluginResult AddRoute(unsigned int count, KEST_SystemPluginRoute** routes) = 0;
    /// Deletes routes from the running system at once, up to `count` or the first null pointer. Always
    /// PLUGIN_SUCCESS: a route that could not be deleted shows in the log only.
    virtual PluginResult DeleteRoute(unsigned int count, KEST_SystemPluginRoute** routes) = 0;
    /// Lists the kernel's IPv4 routes but those of the local table. Without an array (`count` 0): PLUGIN_SUCCESS and
    /// `count` is the number of routes. With an array of `count` objects: fills them and leaves `count` alone, or
    /// PLUGIN_BUFFER_TOO_SMALL with the number needed.
    virtual PluginResult EnumerateRoutes(unsigned int& count, KEST_SystemPluginRoute** routes) = 0;
    /// Lists the interfaces that a tunnel may use. Without an array: PLUGIN_SUCCESS and `count` is their number k.
    /// With an array of `count` objects: fills them and leaves `count` alone when it is at least k; else sets `count`
    /// to k, sets the first k pointers of the array to null and returns PLUGIN_BUFFER_TOO_SMALL. The array must
    /// therefore have room for k pointers even when `count` is smaller. PLUGIN_FAILURE when there is none.
    virtual PluginResult EnumerateNetworkInterfaces(unsigned int& count, KEST_NetworkInterface** interfaces) = 0;

    /// Only logs: address and netmask are read from the device "norvatun0" when the configuration is applied. `mtu` in
    /// bytes. Always PLUGIN_SUCCESS.
    virtual PluginResult SetTunnelParams(const char* interfaceName, const char* reserved1, const char* address,
                                         const char* netmask, const char* reserved2, const char* reserved3,
                                         unsigned int mtu) = 0;

    /// Accepted and logged only; no proxy is configured. Always PLUGIN_SUCCESS.
    virtual PluginResult SetProxy(KEST_ProxyType type, const char* value) = 0;
    virtual PluginResult SetProxyExceptionList(const char** list) = 0;
    virtual PluginResult ClearProxySettings() = 0;
};

#endif
