// SPDX-License-Identifier: Apache-2.0
//
// DNS servers and domains, which go into the pending request, and the proxy operations, which are accepted only.
#include <arpa/inet.h>

#include "Assertion.h"
#include "JsonFields.h"
#include "Log.h"
#include "SystemInterface.h"

PluginResult SystemInterface::SetDNSServers(const char** servers)
{
    WFOAL_DEBUG("SystemInterface::%s: SetDNSServers invoked!", __func__);
    if (mpIpv4Obj == nullptr || servers == nullptr) return PLUGIN_SUCCESS;

    json_object* addresses = json_object_new_array();
    if (!wfoal::setField(mpIpv4Obj, "dns", addresses)) {
        requestIsIncomplete(__func__);
        return PLUGIN_SUCCESS;
    }
    for (; *servers != nullptr; ++servers) {
        in_addr address{};
        if (inet_pton(AF_INET, *servers, &address) == 1) {
            if (!addAddressToJson(addresses, "DNS", address, true)) mbIncomplete = true;
        } else {
            WFOAL_ERROR("SystemInterface::%s: invalid DNS server %s", __func__, *servers);
        }
    }
    return PLUGIN_SUCCESS;
}

void SystemInterface::addDnsDomain(const char* function, const char* domain)
{
    json_object* domains = nullptr;
    if (!json_object_object_get_ex(mpNetIfObj.get(), "domainsOnIfDns", &domains)) {
        domains = json_object_new_array();
        if (!wfoal::setField(mpNetIfObj.get(), "domainsOnIfDns", domains)) domains = nullptr;
    }
    if (domain == nullptr) return;
    if (!wfoal::addElement(domains, json_object_new_string(domain))) requestIsIncomplete(function);
}

PluginResult SystemInterface::SetDNSDomain(const char* domain)
{
    WFOAL_DEBUG("SystemInterface::%s: SetDNSDomain Domain(%s)", __func__, domain != nullptr ? domain : "<NULL>");
    if (domain == nullptr) return PLUGIN_SUCCESS;
    WFOAL_ASSERT("Src/SystemInterface", __LINE__, mpNetIfObj);
    addDnsDomain(__func__, domain);
    return PLUGIN_SUCCESS;
}

// Unlike SetDNSServers and SetDNSDomain, a null list fails; required for compatibility.
PluginResult SystemInterface::SetSplitDNSDomains(const char** domains)
{
    WFOAL_DEBUG("SystemInterface::%s: Split DNS Domains invoked", __func__);
    if (domains == nullptr) {
        WFOAL_ERROR("SystemInterface::%s: unexpected NULL", __func__);
        return PLUGIN_FAILURE;
    }
    WFOAL_ASSERT("Src/SystemInterface", __LINE__, mpNetIfObj);
    addDnsDomain(__func__, nullptr);  // an empty list leaves an empty array
    for (int i = 0; domains[i] != nullptr; ++i) {
        WFOAL_DEBUG("SystemInterface::%s: Split DNS Domain[%d]: %s", __func__, i, domains[i]);
        addDnsDomain(__func__, domains[i]);
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
