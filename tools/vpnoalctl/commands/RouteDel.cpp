// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl route del: deletes a route through the plug-in. The plug-in does not report the outcome, so the command
// reads the kernel's table before and after.
#include <linux/rtnetlink.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>

#include "AgentRoute.h"
#include "CommandError.h"
#include "Context.h"
#include "commands/Commands.h"
#include "kernel/KernelRoutes.h"
#include "net/Ipv4.h"

namespace vpnoalctl {

namespace {

struct Request {
    std::string destination;
    std::string gateway;

    std::string label() const { return "route del " + destination + " " + gateway; }
};

// Counts in the main table, from which the plug-in deletes.
std::size_t countRoutes(const wfoal::Ipv4Network& network, wfoal::Ipv4Address gateway)
{
    const auto routes = kernelRoutes();
    return static_cast<std::size_t>(std::count_if(routes.begin(), routes.end(), [&](const RouteInfo& route) {
        return route.table == RT_TABLE_MAIN && route.dst.s_addr == network.address.bits &&
               route.mask.s_addr == network.mask().bits && route.gateway.s_addr == gateway.bits;
    }));
}

int deleteRoute(Context& context, const Request& request)
{
    const auto network = wfoal::parseNetwork(request.destination);
    if (!network) throw badInput(request.label(), network.reason());
    const auto gateway = wfoal::parseDottedAddress(request.gateway);
    if (!gateway) throw badInput(request.label(), "the gateway is no IPv4 address");
    if (network->prefix == 0) {
        throw badInput(request.label(), "the plug-in cannot name a default route", "use 'ip route del default'");
    }
    const std::size_t before = countRoutes(*network, *gateway);
    if (before == 0) throw CommandError(request.label(), "there is no such route", "'vpnoalctl routes' lists them");

    // Kept: disposing of a system object would restore the system's configuration.
    auto& system = context.plugin().createKept<KEST_SystemPlugin>();
    AgentRoute route(dotted(network->address), dotted(network->mask()), dotted(*gateway), 0);
    KEST_SystemPluginRoute* routes[] = {&route};
    if (system.DeleteRoute(1, routes) != PLUGIN_SUCCESS || countRoutes(*network, *gateway) >= before) {
        throw CommandError(request.label(), "the route is still there",
                           "deleting takes root; run it with -vv to see the log");
    }
    context.output.line("Deleted " + withPrefix(*network) + " via " + dotted(*gateway) + ".", Style::Good);
    return ExitOk;
}

}  // namespace

Action defineRouteDel(CLI::App& command)
{
    auto request = std::make_shared<Request>();
    command.add_option("destination", request->destination, "ADDRESS, ADDRESS/PREFIX LENGTH or ADDRESS/NETMASK")
        ->required()
        ->type_name("DESTINATION");
    command.add_option("gateway", request->gateway, "The route's next hop")->required()->type_name("GATEWAY");
    return [request](Context& context) { return deleteRoute(context, *request); };
}

}  // namespace vpnoalctl
