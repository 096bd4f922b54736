// SPDX-License-Identifier: Apache-2.0
//
// A large configuration through the system interface, against json-c doing the same by hand: 10,000 routes and 10,000
// packet-filter rules, built, written as text and released.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Comparison.h"
#include "Isolation.h"
#include "Log.h"
#include "SystemInterface.h"
#include "VkNetConfigLib.h"
#include "handles/Json.h"

namespace {

constexpr int entries = 10000;

// What the platform was handed last, when a run is asked to keep it.
bool sKeepTexts = false;
std::string sInterfaceText;
std::string sFilterText;

}  // namespace

extern "C" int CmAddInterfaceCfg2(const char* json)
{
    if (sKeepTexts) sInterfaceText = json;
    return 0;
}

extern "C" int CmDelInterfaceCfg(const char*)
{
    return 0;
}

extern "C" int VkFirewallFullCtrl(const char* json)
{
    if (sKeepTexts) sFilterText = json;
    return 0;
}

namespace {

/// A route as an agent has it.
class Route : public KEST_SystemPluginRoute {
public:
    explicit Route(int number)
        : mDestination("10." + std::to_string(number / 250) + "." + std::to_string(number % 250) + ".0"),
          mMetric(number)
    {
    }
    void SetDestination(char*) override {}
    const char* GetDestination() override { return mDestination.c_str(); }
    void SetGateway(char*) override {}
    const char* GetGateway() override { return "10.255.0.1"; }
    void SetNetmask(char*) override {}
    const char* GetNetmask() override { return "255.255.255.0"; }
    void SetInterface(char*) override {}
    const char* GetInterface() override { return "norvatun0"; }
    void SetReservedValue(std::int32_t) override {}
    std::int32_t GetReservedValue() override { return 0; }
    void SetMetric(unsigned int) override {}
    unsigned int GetMetric() override { return static_cast<unsigned>(mMetric); }

private:
    std::string mDestination;
    int mMetric;
};

struct Input {
    std::vector<std::unique_ptr<Route>> owned;
    std::vector<KEST_SystemPluginRoute*> routes;

    Input()
    {
        for (int i = 0; i < entries; ++i) {
            owned.push_back(std::make_unique<Route>(i));
            routes.push_back(owned.back().get());
        }
    }
};

void throughTheInterface(SystemInterface& system, Input& input)
{
    system.AddRoute(entries, input.routes.data());
    for (int i = 0; i < entries; ++i) {
        system.SetPacketFilterRule("10.0.0.0", "255.0.0.0", 0,
                                   input.routes[static_cast<std::size_t>(i)]->GetDestination(), "255.255.255.0", 443,
                                   FILTER_PROTOCOL_TCP, FILTER_DIRECTION_OUT, "norvatun0", FILTER_ACTION_ACCEPT);
    }
    system.ApplyConfiguration();
}

void addText(json_object* object, const char* key, const char* text)
{
    json_object_object_add(object, key, json_object_new_string(text));
}

JsonPtr plainInterfaceRequest(Input& input)
{
    JsonPtr request(json_object_new_object());
    json_object* ipv4 = json_object_new_object();
    json_object_object_add(request.get(), "ipv4", ipv4);
    json_object* routes = json_object_new_array();
    json_object_object_add(ipv4, "additionalIfRoutes", routes);
    for (KEST_SystemPluginRoute* route : input.routes) {
        json_object* entry = json_object_new_object();
        addText(entry, "ip", route->GetDestination());
        addText(entry, "netmask", route->GetNetmask());
        addText(entry, "gateway", route->GetGateway());
        json_object_object_add(entry, "metric", json_object_new_int64(route->GetMetric()));
        json_object_array_add(routes, entry);
    }
    addText(request.get(), "ifName", "norvatun0");
    json_object_object_add(request.get(), "ifPriority", json_object_new_int(5));
    addText(request.get(), "networkTechnology", "vpn");
    addText(request.get(), "networkScope", "wan");
    json_object* usage = json_object_new_array();
    json_object_object_add(request.get(), "networkUsage", usage);
    json_object_array_add(usage, json_object_new_string("internet"));
    return request;
}

JsonPtr plainFilterRequest(Input& input)
{
    JsonPtr request(json_object_new_object());
    addText(request.get(), "label", "vpn.vpnoal");
    addText(request.get(), "chainNew", "NORVA");
    json_object* rules = json_object_new_array();
    json_object_object_add(request.get(), "rules", rules);
    for (KEST_SystemPluginRoute* route : input.routes) {
        const std::string destination = std::string(route->GetDestination()) + "/255.255.255.0";
        json_object* rule = json_object_new_object();
        addText(rule, "operation", "append");
        addText(rule, "source", "10.0.0.0/255.0.0.0");
        addText(rule, "destination", destination.c_str());
        addText(rule, "protocol", "TCP");
        addText(rule, "interfaceName", "norvatun0");
        addText(rule, "interfaceDirection", "out");
        json_object_object_add(rule, "destinationPort", json_object_new_int(443));
        addText(rule, "jumpTo", "ACCEPT");
        json_object_array_add(rules, rule);
    }
    return request;
}

void plain(Input& input)
{
    const JsonPtr request = plainInterfaceRequest(input);
    const JsonPtr filter = plainFilterRequest(input);
    VkFirewallFullCtrl(json_object_to_json_string(filter.get()));
    CmAddInterfaceCfg2(json_object_to_json_string(request.get()));
}

bool textsAreEqual(SystemInterface& system, Input& input)
{
    sKeepTexts = true;
    throughTheInterface(system, input);
    const std::string interfaceText = sInterfaceText;
    const std::string filterText = sFilterText;
    plain(input);
    sKeepTexts = false;
    return interfaceText == sInterfaceText && filterText == sFilterText;
}

}  // namespace

int main()
{
    // Each apply leaves the recovery file in /tmp.
    const std::string reason = testsupport::enterPrivateNamespaces();
    if (!reason.empty()) {
        std::printf("no private namespaces: %s\n", reason.c_str());
        return 1;
    }
    if (vpnWfOalLogCxt != nullptr) vpnWfOalLogCxt->level = wfoal::LogError;
    SystemInterface system;
    Input input;
    if (!textsAreEqual(system, input)) {
        std::printf("the two do not write the same texts\n");
        return 1;
    }
    bench::Table table("Requests: system interface against json-c by hand");
    table.compare("10,000 routes, 10,000 rules", 1.15, bench::timed([&] { throughTheInterface(system, input); }),
                  bench::timed([&] { plain(input); }), 21);
    return table.result();
}
