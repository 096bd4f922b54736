// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl interfaces: the interfaces that a tunnel may use, as the plug-in lists them for an agent.
#include "CommandError.h"
#include "Context.h"
#include "commands/Commands.h"

namespace vpnoalctl {

namespace {

// The plug-in sees no more interfaces than this, so one array is always long enough.
constexpr unsigned int mostInterfaces = 20;

class ListedInterface : public KEST_NetworkInterface {
public:
    void SetAddress(const char* text) override { address = text; }
    void SetNetmask(const char* text) override { netmask = text; }
    void SetGateway(const char* text) override { gateway = text; }
    void SetReservedText(const char*) override {}
    void SetName(const char* text) override { name = text; }
    void SetReservedValue(std::int32_t) override {}
    void SetReservedPair(std::int32_t, std::int32_t) override {}

    std::string address, netmask, gateway, name;
};

int showInterfaces(Context& context)
{
    // Kept: disposing of a system object would restore the system's configuration.
    auto& system = context.plugin().createKept<KEST_SystemPlugin>();
    std::vector<ListedInterface> interfaces(mostInterfaces);
    std::vector<KEST_NetworkInterface*> pointers;
    pointers.reserve(interfaces.size());
    for (ListedInterface& each : interfaces)
        pointers.push_back(&each);
    Table table{{{"name", "NAME"}, {"address", "ADDRESS"}, {"netmask", "NETMASK"}, {"gateway", "GATEWAY"}}, {}};
    unsigned int count = mostInterfaces;
    // It also fails when there is no interface, which is a valid answer.
    const PluginResult result = system.EnumerateNetworkInterfaces(count, pointers.data());
    if (result == PLUGIN_SUCCESS) {
        for (const ListedInterface& each : interfaces) {
            if (each.address.empty()) continue;
            table.rows.push_back({{each.name, Style::Title}, {each.address}, {each.netmask}, {each.gateway}});
        }
    }
    context.output.table(table);
    if (result == PLUGIN_SUCCESS) return ExitOk;
    throw CommandError("interfaces", "no interface is up that a tunnel may use",
                       "usable are eth, ppp, rmnet, wwan, usb, bridge and norvatun with an IPv4 address");
}

}  // namespace

Action defineInterfaces(CLI::App&)
{
    return showInterfaces;
}

}  // namespace vpnoalctl
