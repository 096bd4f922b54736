// SPDX-License-Identifier: Apache-2.0
#include "dns/ResolvconfBackend.h"

#include "RequestError.h"
#include "process/Subprocess.h"
#include "resolved/LinkDns.h"
#include "undolog/DnsLine.h"

namespace vknetconfig {

namespace {

using wfoal::runSubprocess;
using wfoal::SubprocessResult;

constexpr char tool[] = "resolvconf";
constexpr auto longestRun = std::chrono::seconds(5);

SubprocessResult run(const char* operation, std::string_view interfaceName, std::string_view input)
{
    return runSubprocess({tool, operation, wfoal::resolvconfName(interfaceName)}, input, longestRun);
}

std::string fileFor(const DnsSettings& settings)
{
    std::string text;
    for (const wfoal::Ipv4Address server : settings.servers)
        text += "nameserver " + dotted(server) + "\n";
    std::string names;
    for (const wfoal::DnsDomain& domain : resolvedSettingsFor(settings).domains) {
        if (!domain.routeOnly) names += " " + domain.name;  // this resolver cannot choose links by name
    }
    return names.empty() ? text : text + "search" + names + "\n";
}

}  // namespace

bool ResolvconfBackend::works(const Link&)
{
    return runs();
}

bool ResolvconfBackend::runs()
{
    // No option is common to every resolvconf implementation; all of them exit normally on --version. One of them is a
    // link to resolvectl, which needs systemd-resolved: when that is there, it is asked on the bus.
    const SubprocessResult answer = runSubprocess({tool, "--version"}, {}, longestRun);
    constexpr std::string_view resolvectlSays = "systemd ";
    return answer.outcome == SubprocessResult::Outcome::Exited &&
           answer.output.compare(0, resolvectlSays.size(), resolvectlSays) != 0;
}

std::string ResolvconfBackend::prepare(const Link& link, const DnsSettings&, const std::vector<std::string>&)
{
    return link.name;
}

void ResolvconfBackend::set(const Link& link, const DnsSettings& settings, IsWanted)
{
    const SubprocessResult result = run("-a", link.name, fileFor(settings));
    if (!result.succeeded()) throw RequestError("ipv4.dns", "resolvconf: " + result.reason());
}

bool ResolvconfBackend::undo(std::string_view prepared)
{
    if (!runs()) return true;
    const SubprocessResult result = run("-d", prepared, {});
    if (!result.succeeded()) throw RequestError("ipv4.dns", "resolvconf: " + result.reason());
    return true;
}

}  // namespace vknetconfig
