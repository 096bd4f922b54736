// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl routes: the kernel's routes as the plug-in lists them for an agent.
#include "AgentRoute.h"
#include "CommandError.h"
#include "Context.h"
#include "Json.h"
#include "commands/Commands.h"
#include "kernel/RouteObject.h"

namespace vpnoalctl {

namespace {

CommandError listingFailed()
{
    return {"routes", "the plug-in could not read the routing table", "run it again with -v to see the log"};
}

// The table can grow between the two calls; then they are made again.
std::vector<AgentRoute> listRoutes(KEST_SystemPlugin& system)
{
    unsigned int count = 0;
    if (system.EnumerateRoutes(count, nullptr) != PLUGIN_SUCCESS) throw listingFailed();
    while (count != 0) {
        std::vector<AgentRoute> routes(count);
        std::vector<KEST_SystemPluginRoute*> pointers;
        pointers.reserve(routes.size());
        for (AgentRoute& route : routes)
            pointers.push_back(&route);
        const PluginResult result = system.EnumerateRoutes(count, pointers.data());
        if (result == PLUGIN_BUFFER_TOO_SMALL) continue;
        if (result != PLUGIN_SUCCESS) throw listingFailed();
        // A table that has shrunk leaves the last objects unset.
        while (!routes.empty() && *routes.back().GetDestination() == '\0')
            routes.pop_back();
        return routes;
    }
    return {};
}

// The values are what the plug-in reports.
JsonPtr objectOf(AgentRoute& route)
{
    const auto addressOf = [](const char* text) {
        return wfoal::parseDottedAddress(text).value_or(wfoal::Ipv4Address());
    };
    const std::uint8_t prefix = wfoal::prefixLength(addressOf(route.GetNetmask())).value_or(32);
    return routeObject({addressOf(route.GetDestination()), prefix}, addressOf(route.GetGateway()), route.GetInterface(),
                       route.GetMetric());
}

int showRoutes(Context& context)
{
    // Kept: disposing of a system object would restore the system's configuration.
    auto& system = context.plugin().createKept<KEST_SystemPlugin>();
    Table table{{{"destination", "DESTINATION"},
                 {"netmask", "NETMASK"},
                 {"gateway", "GATEWAY"},
                 {"interface", "INTERFACE"},
                 {"metric", "METRIC"}},
                {}};
    const JsonPtr objects = newArray();
    for (AgentRoute& route : listRoutes(system)) {
        append(objects, objectOf(route));
        table.rows.push_back({{route.GetDestination(), Style::Title},
                              {route.GetNetmask()},
                              {route.GetGateway()},
                              {route.GetInterface()},
                              {route.GetMetric()}});
    }
    if (context.output.json()) {
        context.output.value(objects);
    } else {
        context.output.table(table);
    }
    return ExitOk;
}

}  // namespace

Action defineRoutes(CLI::App&)
{
    return showRoutes;
}

}  // namespace vpnoalctl
