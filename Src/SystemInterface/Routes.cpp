// SPDX-License-Identifier: Apache-2.0
//
// Routes: added through the pending request, deleted at once, listed from the kernel's table.
#include <arpa/inet.h>
#include <linux/rtnetlink.h>

#include <cstring>
#include <new>
#include <string>

#include "InterfaceIndex.h"
#include "JsonFields.h"
#include "Log.h"
#include "NetLinkHelper.h"
#include "SystemInterface.h"
#include "handles/Stdio.h"
#include "net/DottedAddress.h"

namespace {

// A getter may return null; the request then holds null.
bool addTextOrNull(json_object* object, const char* key, const char* text)
{
    if (text != nullptr) return wfoal::addText(object, key, text);
    return object != nullptr && json_object_object_add(object, key, nullptr) == 0;
}

// One pass; the other routes keep their order.
void dropLocalRoutes(GPtrArray* routes)
{
    guint kept = 0;
    for (guint i = 0; i < routes->len; ++i) {
        auto* route = static_cast<RouteInfo*>(routes->pdata[i]);
        if (route != nullptr && route->table == RT_TABLE_LOCAL) {
            g_free(route);
        } else {
            routes->pdata[kept++] = route;
        }
    }
    g_ptr_array_set_size(routes, static_cast<gint>(kept));
}

// The agent's object gets a copy of each text and owns it.
void fillRoute(const char* function, const RouteInfo& route, KEST_SystemPluginRoute& object,
               wfoal::InterfaceNameCache& names)
{
    using wfoal::DottedAddress;
    const DottedAddress destination(route.dst);
    object.SetDestination(destination.copy());
    // A directly connected route reports its own destination as its gateway.
    object.SetGateway(route.gateway.s_addr != 0 ? DottedAddress(route.gateway).copy() : destination.copy());
    object.SetNetmask(DottedAddress(route.mask).copy());
    object.SetInterface(strdup(names.nameOf(route.oifIndex).c_str()));
    object.SetReservedValue(0);
    object.SetMetric(route.metric);
    WFOAL_DEBUG("SystemInterface::%s: Route Found: Dest(%s) Gw(%s) Mask(%s) Metric(%i) IfIndex(%s)", function,
                object.GetDestination(), object.GetGateway(), object.GetNetmask(), object.GetMetric(),
                object.GetInterface());
}

PluginResult listRoutes(const char* function, GPtrArray* list, unsigned int& count, KEST_SystemPluginRoute** routes)
{
    dropLocalRoutes(list);
    if (count < list->len) {
        count = list->len;
        return routes != nullptr ? PLUGIN_BUFFER_TOO_SMALL : PLUGIN_SUCCESS;
    }
    if (routes == nullptr) return PLUGIN_SUCCESS;
    wfoal::InterfaceNameCache names;
    for (guint i = 0; i < list->len; ++i) {
        const auto* route = static_cast<const RouteInfo*>(list->pdata[i]);
        if (route != nullptr && routes[i] != nullptr) fillRoute(function, *route, *routes[i], names);
    }
    return PLUGIN_SUCCESS;
}

PluginResult enumerateRoutes(const char* function, unsigned int& count, KEST_SystemPluginRoute** routes)
{
    if (routes != nullptr && count == 0) {
        WFOAL_ERROR("SystemInterface::%s: A buffer was provided but its length is 0", function);
        return PLUGIN_FAILURE;
    }
    const RoutingTableListPtr list(sNlHelper.getRoutingTableList());
    if (!list) {
        WFOAL_ERROR("SystemInterface::%s: Routing Table not listed", function);
        return PLUGIN_FAILURE;
    }
    return listRoutes(function, list.get(), count, routes);
}

// Characters allowed in a route that is passed to a shell. A gateway may have sent the route.
bool isHarmless(const char* text)
{
    static const char harmless[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.:/-_";
    return text != nullptr && text[std::strspn(text, harmless)] == '\0';
}

// Throws std::bad_alloc.
std::string deletionCommand(const char* destination, const char* gateway, int prefix)
{
    const auto orNull = [](const char* text) { return text != nullptr ? text : "(null)"; };
    std::string command("/sbin/ip route del ");
    command.append(orNull(destination));
    // A prefix of 0 counts as 32, for compatibility.
    if (prefix != 0 && prefix != 32) command.append("/").append(std::to_string(prefix));
    return command.append(" via ").append(orNull(gateway));
}

void deleteRoute(const char* function, KEST_SystemPluginRoute& route)
{
    WFOAL_DEBUG("SystemInterface::%s: Dest(%s) Gateway(%s) Mask(%s) Metric(%u)", function, route.GetDestination(),
                route.GetGateway(), route.GetNetmask(), route.GetMetric());
    const char* destination = route.GetDestination();
    const char* gateway = route.GetGateway();
    std::string command;
    try {
        command = deletionCommand(destination, gateway, ConvertNetmaskToPrefix(route.GetNetmask()));
    } catch (const std::bad_alloc&) {
        WFOAL_ERROR("SystemInterface::%s:Failed to allocate memory", function);
        return;
    }
    const bool harmless = isHarmless(destination) && isHarmless(gateway);
    if (harmless) WFOAL_DEBUG("SystemInterface::%s: Command Going Out: %s", function, command.c_str());
    // The text holds no character that is special to the shell.
    // NOLINTNEXTLINE(cert-env33-c)
    const PipePtr output(harmless ? popen(command.c_str(), "re") : nullptr);
    if (!output) {
        WFOAL_ERROR("SystemInterface::%s:Failed to run command: %s", function, command.c_str());
        return;
    }
    char line[256];
    while (std::fgets(line, sizeof line, output.get()) != nullptr) {
        WFOAL_DEBUG("SystemInterface::%s: Output: %s", function, line);
    }
}

}  // namespace

int ConvertNetmaskToPrefix(const char* netmask)
{
    in_addr address{};
    if (netmask == nullptr || inet_pton(AF_INET, netmask, &address) != 1) return 0;
    WFOAL_DEBUG("SystemInterface::%s: netmask %s(0x%08x)", __func__, netmask, address.s_addr);
    int prefix = 0;
    for (std::uint32_t bits = ntohl(address.s_addr); bits != 0; bits <<= 1)
        ++prefix;
    WFOAL_DEBUG("SystemInterface::%s: prefixlen %d", __func__, prefix);
    return prefix;
}

PluginResult SystemInterface::AddRoute(unsigned int count, KEST_SystemPluginRoute** routes)
{
    WFOAL_DEBUG("SystemInterface::%s called!!", __func__);
    if (routes == nullptr) return PLUGIN_SUCCESS;
    if (mpRoutesArray == nullptr) {
        mpRoutesArray = json_object_new_array();
        if (!wfoal::addField(mpIpv4Obj, "additionalIfRoutes", mpRoutesArray)) {
            mpRoutesArray = nullptr;
            requestIsIncomplete(__func__);
        }
    }
    for (unsigned int i = 0; i < count && routes[i] != nullptr; ++i) {
        KEST_SystemPluginRoute& route = *routes[i];
        JsonPtr entry(json_object_new_object());
        const bool isWhole = addTextOrNull(entry.get(), "ip", route.GetDestination()) &&
                             addTextOrNull(entry.get(), "netmask", route.GetNetmask()) &&
                             addTextOrNull(entry.get(), "gateway", route.GetGateway()) &&
                             wfoal::addField(entry.get(), "metric", json_object_new_int64(route.GetMetric()));
        if (!isWhole || !wfoal::addElement(mpRoutesArray, entry.release())) requestIsIncomplete(__func__);

        const char* destination = route.GetDestination();
        if (destination != nullptr && std::strcmp(destination, "0.0.0.0") == 0) sDoesHaveADefaultGateway = true;
        WFOAL_DEBUG("SystemInterface::%s: Dest(%s) Gateway(%s) Mask(%s)  Metric(%u) IfId(%s)", __func__,
                    route.GetDestination(), route.GetGateway(), route.GetNetmask(), route.GetMetric(),
                    route.GetInterface());
    }
    return PLUGIN_SUCCESS;
}

PluginResult SystemInterface::DeleteRoute(unsigned int count, KEST_SystemPluginRoute** routes)
{
    WFOAL_DEBUG("SystemInterface::%s called!!", __func__);
    if (routes == nullptr || count == 0) {
        WFOAL_ERROR("SystemInterface::%s: Called with no routes to delete", __func__);
        return PLUGIN_SUCCESS;
    }
    for (unsigned int i = 0; i < count && routes[i] != nullptr; ++i)
        deleteRoute(__func__, *routes[i]);
    return PLUGIN_SUCCESS;
}

PluginResult SystemInterface::EnumerateRoutes(unsigned int& count, KEST_SystemPluginRoute** routes)
{
    WFOAL_DEBUG("SystemInterface::%s called!! the Array Length Passed In: %i", __func__, count);
    const PluginResult result = enumerateRoutes(__func__, count, routes);
    WFOAL_DEBUG("SystemInterface::%s: Array Length Being Returned: %i", __func__, count);
    return result;
}
