// SPDX-License-Identifier: Apache-2.0
//
// Packet-filter rules: collected as they come, in one named chain that is replaced at every apply.
#include <new>
#include <string>

#include "JsonFields.h"
#include "Log.h"
#include "SystemInterface.h"
#include "VkNetConfigLib.h"

namespace {

constexpr char filterLabel[] = "vpn.vpnoal";
constexpr char filterChain[] = "NORVA";

using wfoal::addElement;
using wfoal::addField;
using wfoal::addText;

bool addAddress(json_object* rule, const char* key, const char* address, const char* mask)
{
    if (address == nullptr) return true;
    if (mask == nullptr) return addText(rule, key, address);
    try {
        return addText(rule, key, std::string(address).append("/").append(mask).c_str());
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool addPort(json_object* rule, const char* key, unsigned short port)
{
    return port == 0 || addField(rule, key, json_object_new_int(port));
}

const char* protocolName(KEST_FilterProtocol protocol)
{
    switch (protocol) {
    case FILTER_PROTOCOL_ICMP: return "ICMP";
    case FILTER_PROTOCOL_TCP: return "TCP";
    case FILTER_PROTOCOL_UDP: return "UDP";
    default: return nullptr;
    }
}

}  // namespace

PluginResult SystemInterface::SetPacketFilterRule(const char* sourceAddress, const char* sourceMask,
                                                  unsigned short sourcePort, const char* destinationAddress,
                                                  const char* destinationMask, unsigned short destinationPort,
                                                  KEST_FilterProtocol protocol, KEST_FilterApplyDirection direction,
                                                  const char* interfaceName, KEST_FilterAction action)
{
    json_object* rules = nullptr;
    if (!mpFirewallObj || !json_object_object_get_ex(mpFirewallObj.get(), "rules", &rules)) {
        WFOAL_ERROR("SystemInterface::%s: Firewall JSON Object not defined", __func__);
        return PLUGIN_SUCCESS;
    }

    JsonPtr rule(json_object_new_object());
    bool whole = addText(rule.get(), "operation", "append");
    whole = whole && addAddress(rule.get(), "source", sourceAddress, sourceMask);
    whole = whole && addAddress(rule.get(), "destination", destinationAddress, destinationMask);
    if (const char* name = protocolName(protocol)) whole = whole && addText(rule.get(), "protocol", name);
    if (direction != FILTER_DIRECTION_BOTH && interfaceName != nullptr) {
        whole = whole && addText(rule.get(), "interfaceName", interfaceName);
        whole = whole && addText(rule.get(), "interfaceDirection", direction == FILTER_DIRECTION_IN ? "in" : "out");
    }
    whole = whole && addPort(rule.get(), "sourcePort", sourcePort);
    whole = whole && addPort(rule.get(), "destinationPort", destinationPort);
    whole = whole && addText(rule.get(), "jumpTo", action == FILTER_ACTION_ACCEPT ? "ACCEPT" : "DROP");

    json_object* borrowed = rule.get();
    if (!whole || !addElement(rules, rule.release())) {
        requestIsIncomplete(__func__);
        return PLUGIN_SUCCESS;
    }
    WFOAL_DEBUG("SystemInterface::%s Adding Firewall Rule %s", __func__, json_object_to_json_string(borrowed));
    return PLUGIN_SUCCESS;
}

void SystemInterface::resetJsonFirewallObject()
{
    mpFirewallObj.reset(json_object_new_object());
    if (!addText(mpFirewallObj.get(), "label", filterLabel) || !addText(mpFirewallObj.get(), "chainNew", filterChain) ||
        !addField(mpFirewallObj.get(), "rules", json_object_new_array())) {
        requestIsIncomplete(__func__);
    }
}

void SystemInterface::deleteFirewallSettings()
{
    // A constant text, because it is also needed when memory has run out.
    static const char text[] = R"({ "label": "vpn.vpnoal", "chainDelete": "NORVA" })";
    WFOAL_DEBUG("SystemInterface::%s called!! Sending to Fw Ctrl %s", __func__, text);
    VkFirewallFullCtrl(text);
}
