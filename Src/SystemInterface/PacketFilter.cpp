// SPDX-License-Identifier: Apache-2.0
//
// Packet-filter rules: collected as they come, in one named chain that is replaced at every apply.
#include <string>

#include "Log.h"
#include "SystemInterface.h"
#include "VkNetConfigLib.h"

namespace {

constexpr char filterLabel[] = "vpn.vpnoal";
constexpr char filterChain[] = "NORVA";

void addText(json_object* object, const char* key, const char* text)
{
    json_object_object_add(object, key, json_object_new_string(text));
}

void addAddress(json_object* rule, const char* key, const char* address, const char* mask)
{
    if (address == nullptr) return;
    std::string text(address);
    if (mask != nullptr) text.append("/").append(mask);
    addText(rule, key, text.c_str());
}

void addPort(json_object* rule, const char* key, unsigned short port)
{
    if (port != 0) json_object_object_add(rule, key, json_object_new_int(port));
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

    json_object* rule = json_object_new_object();
    addText(rule, "operation", "append");
    addAddress(rule, "source", sourceAddress, sourceMask);
    addAddress(rule, "destination", destinationAddress, destinationMask);
    if (const char* name = protocolName(protocol)) addText(rule, "protocol", name);
    if (direction != FILTER_DIRECTION_BOTH && interfaceName != nullptr) {
        addText(rule, "interfaceName", interfaceName);
        addText(rule, "interfaceDirection", direction == FILTER_DIRECTION_IN ? "in" : "out");
    }
    addPort(rule, "sourcePort", sourcePort);
    addPort(rule, "destinationPort", destinationPort);
    addText(rule, "jumpTo", action == FILTER_ACTION_ACCEPT ? "ACCEPT" : "DROP");

    json_object_array_add(rules, rule);
    WFOAL_DEBUG("SystemInterface::%s Adding Firewall Rule %s", __func__, json_object_to_json_string(rule));
    return PLUGIN_SUCCESS;
}

void SystemInterface::resetJsonFirewallObject()
{
    mpFirewallObj.reset(json_object_new_object());
    addText(mpFirewallObj.get(), "label", filterLabel);
    addText(mpFirewallObj.get(), "chainNew", filterChain);
    json_object_object_add(mpFirewallObj.get(), "rules", json_object_new_array());
}

void SystemInterface::deleteFirewallSettings()
{
    const JsonPtr request(json_object_new_object());
    addText(request.get(), "label", filterLabel);
    addText(request.get(), "chainDelete", filterChain);
    const char* text = json_object_to_json_string(request.get());
    WFOAL_DEBUG("SystemInterface::%s called!! Sending to Fw Ctrl %s", __func__, text);
    VkFirewallFullCtrl(text);
}
