/* SPDX-License-Identifier: Apache-2.0
 *
 * libVkNetConfigLib that CHANGES NOTHING: it reads each request, refuses what is malformed, and writes to the log what
 * it was asked for. So an agent runs, and one sees what the device would have to do.
 *
 * For a device: install what report() prints, all or nothing, before the call returns; remove exactly that. */
#include "VkNetConfigLib.h"

#include <json-c/json.h>
#include <stdbool.h>
#include <string.h>

#include "VkLogLib.h"

enum { logError = 3, logInfo = 6 };

/* The keys that a request may hold; a table ends with a null name. `inside` describes the objects of a nested object or
 * array; without it an array holds texts. */
struct Key {
    const char* name;
    enum json_type type;
    const struct Key* inside;
    bool required;
};

static const struct Key sRouteKeys[] = {{"ip", json_type_string, NULL, true},
                                        {"netmask", json_type_string, NULL, true},
                                        {"gateway", json_type_string, NULL, false},
                                        {"metric", json_type_int, NULL, false},
                                        {0}};
static const struct Key sIpv4Keys[] = {{"ip", json_type_string, NULL, false},
                                       {"netmask", json_type_string, NULL, false},
                                       {"gateway", json_type_string, NULL, false},
                                       {"dns", json_type_array, NULL, false},
                                       {"additionalIfRoutes", json_type_array, sRouteKeys, false},
                                       {0}};
static const struct Key sInterfaceKeys[] = {{"ifName", json_type_string, NULL, true},
                                            {"ifPriority", json_type_int, NULL, false},
                                            {"networkTechnology", json_type_string, NULL, false},
                                            {"networkScope", json_type_string, NULL, false},
                                            {"networkUsage", json_type_array, NULL, false},
                                            {"domainsOnIfDns", json_type_array, NULL, false},
                                            {"ipv4", json_type_object, sIpv4Keys, false},
                                            {0}};
static const struct Key sRuleKeys[] = {
    {"operation", json_type_string, NULL, true},      {"source", json_type_string, NULL, false},
    {"destination", json_type_string, NULL, false},   {"protocol", json_type_string, NULL, false},
    {"interfaceName", json_type_string, NULL, false}, {"interfaceDirection", json_type_string, NULL, false},
    {"sourcePort", json_type_int, NULL, false},       {"destinationPort", json_type_int, NULL, false},
    {"jumpTo", json_type_string, NULL, true},         {0}};
static const struct Key sFirewallKeys[] = {{"label", json_type_string, NULL, true},
                                           {"chainNew", json_type_string, NULL, false},
                                           {"chainDelete", json_type_string, NULL, false},
                                           {"rules", json_type_array, sRuleKeys, false},
                                           {0}};

static VkLogContext* logContext(void)
{
    static VkLogContext* sContext; /* a second look-up gives the same */
    if (sContext == NULL) VkLogGetContext("vknetconfig", &sContext);
    return sContext;
}

static bool refuse(const char* operation, const char* key, const char* why)
{
    VkLogPrint(logContext(), logError, "%s: \"%s\" %s", operation, key, why);
    return false;
}

static const struct Key* findKey(const struct Key* keys, const char* name)
{
    while (keys->name != NULL && strcmp(keys->name, name) != 0)
        ++keys;
    return keys->name != NULL ? keys : NULL;
}

static bool isObject(const char* operation, struct json_object* object, const struct Key* keys);

static bool isArray(const char* operation, struct json_object* array, const struct Key* key)
{
    for (size_t i = 0; i < json_object_array_length(array); ++i) {
        struct json_object* entry = json_object_array_get_idx(array, i);
        if (!json_object_is_type(entry, key->inside != NULL ? json_type_object : json_type_string))
            return refuse(operation, key->name, "holds an entry of the wrong type");
        if (key->inside != NULL && !isObject(operation, entry, key->inside)) return false;
    }
    return true;
}

static bool isObject(const char* operation, struct json_object* object, const struct Key* keys)
{
    for (const struct Key* key = keys; key->name != NULL; ++key) {
        if (key->required && !json_object_object_get_ex(object, key->name, NULL))
            return refuse(operation, key->name, "is missing");
    }
    json_object_object_foreach(object, name, value)
    {
        const struct Key* key = findKey(keys, name);
        if (key == NULL) return refuse(operation, name, "is not known");
        /* A route without a gateway may say so. */
        if (value == NULL && keys == sRouteKeys && strcmp(name, "gateway") == 0) continue;
        if (!json_object_is_type(value, key->type)) return refuse(operation, name, "is of the wrong type");
        if (key->type == json_type_array && !isArray(operation, value, key)) return false;
        if (key->type == json_type_object && !isObject(operation, value, key->inside)) return false;
    }
    return true;
}

static void report(const char* operation, struct json_object* request)
{
    json_object_object_foreach(request, name, value)
    {
        VkLogPrint(logContext(), logInfo, "%s (not installed): %s = %s", operation, name,
                   json_object_to_json_string_ext(value, JSON_C_TO_STRING_PLAIN));
    }
}

static int take(const char* operation, const char* json, const struct Key* keys)
{
    struct json_object* request = json != NULL ? json_tokener_parse(json) : NULL;
    bool good = json_object_is_type(request, json_type_object) || refuse(operation, "request", "is no JSON object");
    good = good && isObject(operation, request, keys);
    if (good) report(operation, request);
    json_object_put(request);
    return good ? 0 : -1;
}

/* Promises: what the request says is installed when the call returns: link up, address, routes, DNS. It replaces the
 * configuration that the interface had. All or nothing: on failure the interface is as it was, and one line of the
 * log names the key at fault. From any thread, one request at a time. It belongs to this process, and stays when the
 * process ends.
 * For a device: install what report() prints, and write down before each step how to undo it, so that a crash leaves
 * nothing.
 * Tried by: "exports its three functions", "a null request or name is refused", "a malformed interface request is
 * refused", "one line of the log names the key at fault", "an interface that does not exist is refused", "a request
 * takes effect before the call returns", "a request replaces the one before it", "a request that cannot be carried
 * out whole changes nothing", "a default route goes into the interface as two /1 routes", "another process cannot
 * configure the interface meanwhile, nor remove its configuration", "the first request for an interface removes what
 * an ended process left", "requests may come from any thread" */
int CmAddInterfaceCfg2(const char* json)
{
    return take("CmAddInterfaceCfg2", json, sInterfaceKeys);
}

/* Promises: what was installed on the interface is removed, and only that. Nothing installed is no failure; that it
 * belongs to another living process is one.
 * For a device: undo in the opposite order, and only what is still as it was installed.
 * Tried by: "a null request or name is refused", "removing a configuration that is not there is no failure",
 * "removing a configuration restores the state before it", "unloading leaves no descriptor and no thread" */
int CmDelInterfaceCfg(const char* ifName)
{
    if (ifName == NULL) return refuse("CmDelInterfaceCfg", "ifName", "is missing"), -1;
    VkLogPrint(logContext(), logInfo, "CmDelInterfaceCfg: %s", ifName);
    return 0;
}

/* Promises: the filter of this label is replaced at once, or removed. Rules are tried in their order, and what none
 * decides passes. A malformed request changes nothing.
 * For a device: one transaction of the packet filter, so that no packet passes in between.
 * Tried by: "a malformed firewall request is refused", "one line of the log names the key at fault", "a filter drops
 * what its rule says, and all else passes", "a filter replaces the one before it", "rules are tried in their order" */
int VkFirewallFullCtrl(const char* json)
{
    return take("VkFirewallFullCtrl", json, sFirewallKeys);
}
