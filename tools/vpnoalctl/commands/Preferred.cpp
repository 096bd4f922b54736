// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl preferred: the interface that the plug-in prefers for the agent's outer connection, and why.
#include <CLI/CLI.hpp>
#include <memory>

#include "CommandError.h"
#include "Context.h"
#include "Decisions/InterfaceChoice.h"
#include "Json.h"
#include "OuterSocket.h"
#include "commands/Commands.h"
#include "kernel/KernelRoutes.h"

namespace vpnoalctl {

namespace {

using wfoal::RouteVerdict;

struct Explanation {
    RouteVerdict verdict;
    const char* word;
    const char* reason;
    Style style;
};

constexpr Explanation explanations[] = {
    {RouteVerdict::Chosen, "chosen", "lowest priority of a cellular or Ethernet-class interface", Style::Good},
    {RouteVerdict::NotADefaultRoute, "not a default route", "its netmask is not 0.0.0.0", Style::Faint},
    {RouteVerdict::OtherInterface, "name class", "not ppp, rmnet, wwan (cellular) or eth (Ethernet-class)",
     Style::Faint},
    {RouteVerdict::PriorityTooHigh, "priority", "9999 and more is never chosen", Style::Warning},
    {RouteVerdict::HigherPriority, "priority", "the chosen route's is lower", Style::Plain},
    {RouteVerdict::LostTie, "tie", "the chosen route has the same priority and comes later", Style::Plain},
};

const Explanation& explain(RouteVerdict verdict)
{
    for (const Explanation& each : explanations) {
        if (each.verdict == verdict) return each;
    }
    return explanations[0];
}

// Routes to 0.0.0.0 with any netmask. The others are never candidates.
Table explainRoutes(const std::vector<RouteInfo>& routes, const wfoal::InterfaceChoice& choice)
{
    Table table{{{"route", "ROUTE"},
                 {"table", "TABLE"},
                 {"interface", "INTERFACE"},
                 {"gateway", "GATEWAY"},
                 {"priority", "PRIORITY"},
                 {"verdict", "VERDICT"},
                 {"reason", "REASON"}},
                {}};
    for (const RouteInfo& route : routes) {
        if (route.dst.s_addr != 0) continue;
        const std::string name = interfaceName(route.oifIndex);
        const Explanation& why = explain(verdictOn(route, name, choice));
        table.rows.push_back({{destinationText(route), Style::Title},
                              {static_cast<unsigned>(route.table)},
                              {name},
                              {addressText(route.gateway)},
                              {route.priority},
                              {why.word, why.style},
                              {why.reason}});
    }
    return table;
}

void printPreferred(Context& context, const std::string& preferred)
{
    if (preferred.empty()) {
        context.output.line("none: no default route through a cellular or Ethernet-class interface", Style::Warning);
    } else {
        context.output.line(preferred, Style::Good);
    }
}

int showPreferred(Context& context, bool withReasons)
{
    const auto socketPlugin = context.plugin().create<KEST_SocketPlugin>();
    const std::string preferred = preferredInterface(*socketPlugin);
    printPreferred(context, preferred);
    const JsonPtr answer = newObject();
    addText(answer, "interface", preferred);
    if (withReasons) {
        const std::vector<RouteInfo> routes = kernelRoutes();
        const wfoal::InterfaceChoice choice = chooseAmong(routes);
        const Table table = explainRoutes(routes, choice);
        if (!context.output.json()) context.output.table(table);
        const std::size_t others = routes.size() - table.rows.size();
        context.output.line(std::to_string(others) + " more with a destination of their own are not default routes",
                            Style::Faint);
        if (choice.name != preferred) {
            context.output.line("The table has changed since the plug-in chose.", Style::Warning);
        }
        addChild(answer, "routes", tableToJson(table));
        addNumber(answer, "otherRoutes", static_cast<std::int64_t>(others));
    }
    context.output.value(answer);
    return ExitOk;
}

}  // namespace

Action definePreferred(CLI::App& command)
{
    auto withReasons = std::make_shared<bool>(false);
    command.add_flag("--explain", *withReasons, "List every default route with the reason it was taken or left");
    return [withReasons](Context& context) { return showPreferred(context, *withReasons); };
}

}  // namespace vpnoalctl
