// SPDX-License-Identifier: Apache-2.0
//
// DNS servers and domains, which go into the pending request, and the proxy operations, which are accepted only.
#include <arpa/inet.h>

#include "Assertion.h"
#include "Log.h"
#include "SystemInterface.h"

PluginResult SystemInterface::SetDNSServers(const char** servers)
{
    WFOAL_DEBUG("SystemInterface::%s: SetDNSServers invoked!", __func__);
    if (mpIpv4Obj == nullptr || servers == nullptr) return PLUGIN_SUCCESS;

    json_object* addresses = json_object_new_array();
    json_object_object_add(mpIpv4Obj, "dns", addresses);
    for (; *servers != nullptr; ++servers) {
        in_addr address{};
        if (inet_pton(AF_INET, *servers, &address) == 1) {
            addAddressToJson(addresses, "DNS", address, true);
        } else {
            WFOAL_ERROR("SystemInterface::%s: invalid DNS server %s", __func__, *servers);
        }
    }
    return PLUGIN_SUCCESS;
}

json_object* SystemInterface::dnsDomainArray()
{
    json_object* domains = nullptr;
    if (!json_object_object_get_ex(mpNetIfObj.get(), "domainsOnIfDns", &domains)) {
        domains = json_object_new_array();
        json_object_object_add(mpNetIfObj.get(), "domainsOnIfDns", domains);
    }
    return domains;
}

PluginResult SystemInterface::SetDNSDomain(const char* domain)
{
    WFOAL_DEBUG("SystemInterface::%s: SetDNSDomain Domain(%s)", __func__, domain != nullptr ? domain : "<NULL>");
    if (domain == nullptr) return PLUGIN_SUCCESS;
    WFOAL_ASSERT("Src/SystemInterface", __LINE__, mpNetIfObj);
    json_object_array_add(dnsDomainArray(), json_object_new_string(domain));
    return PLUGIN_SUCCESS;
}

// A null list fails here, unlike in the two operations above: agents know it so.
PluginResult SystemInterface::SetSplitDNSDomains(const char** domains)
{
    WFOAL_DEBUG("SystemInterface::%s: Split DNS Domains invoked", __func__);
    if (domains == nullptr) {
        WFOAL_ERROR("SystemInterface::%s: unexpected NULL", __func__);
        return PLUGIN_FAILURE;
    }
    WFOAL_ASSERT("Src/SystemInterface", __LINE__, mpNetIfObj);
    json_object* array = dnsDomainArray();
    for (int i = 0; domains[i] != nullptr; ++i) {
        WFOAL_DEBUG("SystemInterface::%s: Split DNS Domain[%d]: %s", __func__, i, domains[i]);
        json_object_array_add(array, json_object_new_string(domains[i]));
    }
    return PLUGIN_SUCCESS;
}

PluginResult SystemInterface::SetProxy(KEST_ProxyType, const char*)
{
    WFOAL_DEBUG("SystemInterface::%s: SetProxy called", __func__);
    return PLUGIN_SUCCESS;
}

PluginResult SystemInterface::SetProxyExceptionList(const char**)
{
    WFOAL_DEBUG("SystemInterface::%s: SetProxyExceptionList called", __func__);
    return PLUGIN_SUCCESS;
}

PluginResult SystemInterface::ClearProxySettings()
{
    WFOAL_DEBUG("SystemInterface::%s: ClearProxySettings called", __func__);
    return PLUGIN_SUCCESS;
}
