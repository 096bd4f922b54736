// SPDX-License-Identifier: Apache-2.0
#include "ResolvconfResolver.h"

#include "Ipv4.h"
#include "LinkDns.h"
#include "RequestError.h"
#include "ToolRun.h"

namespace vknetconfig {

namespace {

constexpr char tool[] = "resolvconf";
constexpr auto longestRun = std::chrono::seconds(5);

ToolResult run(const char* operation, std::string_view interfaceName, std::string_view input)
{
    return runTool({tool, operation, std::string(interfaceName) + ".vknetconfig"}, input, longestRun);
}

std::string fileFor(const DnsSettings& settings)
{
    std::string text;
    for (const in_addr& server : settings.servers)
        text += "nameserver " + dotted(server) + "\n";
    std::string names;
    for (const DnsDomain& domain : wantedOf(settings).domains) {
        if (!domain.routeOnly) names += " " + domain.name;  // this resolver cannot choose links by name
    }
    return names.empty() ? text : text + "search" + names + "\n";
}

}  // namespace

bool ResolvconfResolver::works()
{
    // Its kinds agree on no harmless operation, but each says something about this one and ends.
    return runTool({tool, "--version"}, {}, longestRun).end == ToolResult::End::exited;
}

std::string ResolvconfResolver::prepare(const Link& link, const DnsSettings&, const std::vector<std::string>&)
{
    return link.name;
}

void ResolvconfResolver::set(const Link& link, const DnsSettings& settings)
{
    const ToolResult result = run("-a", link.name, fileFor(settings));
    if (!result.succeeded()) throw RequestError("ipv4.dns", "resolvconf: " + result.reason());
}

void ResolvconfResolver::undo(std::string_view prepared)
{
    const ToolResult result = run("-d", prepared, {});
    if (result.succeeded() || result.end == ToolResult::End::notStarted) return;
    throw RequestError("ipv4.dns", "resolvconf: " + result.reason());
}

}  // namespace vknetconfig
