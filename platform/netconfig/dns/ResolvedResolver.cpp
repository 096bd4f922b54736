// SPDX-License-Identifier: Apache-2.0
#include "dns/ResolvedResolver.h"

#include "RequestError.h"
#include "dns/ResolvedManager.h"

namespace vknetconfig {

namespace {

LinkDns readPresent(ResolvedManager& manager, const Link& link)
{
    auto found = manager.read(link.index);
    if (!found) throw RequestError("ipv4.dns", "systemd-resolved does not know the interface " + link.name);
    return *found;
}

}  // namespace

bool ResolvedResolver::works()
{
    try {
        return ResolvedManager().answers();
    } catch (const RequestError&) {
        return false;  // no bus
    }
}

std::string ResolvedResolver::prepare(const Link& link, const DnsSettings& settings,
                                      const std::vector<std::string>& earlier)
{
    ResolvedManager manager;
    LinkChange change{link, wantedOf(settings), readPresent(manager, link)};
    for (const std::string& line : earlier) {
        const LinkChange inForce = LinkChange::decode(line);
        if (inForce.link == link) change.before = takenBack(inForce, change.before);
    }
    return change.encode();
}

void ResolvedResolver::set(const Link& link, const DnsSettings& settings)
{
    ResolvedManager manager;
    const LinkDns before = readPresent(manager, link);
    try {
        manager.write(link.index, wantedOf(settings));
    } catch (const RequestError&) {
        try {
            manager.restore(link.index, before, readPresent(manager, link));
        } catch (const RequestError&) {
            // The first failure is the one to tell.
        }
        throw;
    }
}

bool undoChange(ResolvedManager& manager, const LinkChange& change)
{
    if (!hasIndex(change.link)) return true;
    const auto now = manager.read(change.link.index);
    if (!now) return false;
    manager.restore(change.link.index, takenBack(change, *now), *now);
    return true;
}

bool ResolvedResolver::undo(std::string_view prepared)
{
    const LinkChange change = LinkChange::decode(prepared);
    if (!hasIndex(change.link)) return true;
    SdBusPtr bus;
    try {
        bus = openSystemBus();
    } catch (const RequestError&) {
        return false;  // no bus, no systemd-resolved
    }
    ResolvedManager manager(std::move(bus));
    return undoChange(manager, change);
}

}  // namespace vknetconfig
