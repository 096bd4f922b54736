// SPDX-License-Identifier: Apache-2.0
#include "ResolvedResolver.h"

#include "LinkDns.h"
#include "Log.h"
#include "RequestError.h"
#include "ResolvedManager.h"

namespace vknetconfig {

namespace {

LinkDns readPresent(ResolvedManager& manager, const Link& link)
{
    auto found = manager.read(link.index);
    if (!found) throw RequestError("ipv4.dns", "systemd-resolved does not know the interface " + link.name);
    return *found;
}

void putBack(ResolvedManager& manager, int index, const LinkDns& target)
{
    // Nothing of anybody's: also forgets that a default route was ever set.
    if (target.servers.empty() && target.domains.empty()) {
        manager.revert(index);
    } else {
        manager.write(index, target);
    }
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
            putBack(manager, link.index, before);
        } catch (const RequestError&) {
            // The first failure is the one to tell.
        }
        throw;
    }
}

void ResolvedResolver::undo(std::string_view prepared)
{
    const LinkChange change = LinkChange::decode(prepared);
    if (!isPresent(change.link)) return;
    SdBusPtr bus;
    try {
        bus = openSystemBus();
    } catch (const RequestError& error) {
        VKNETCONFIG_WARNING("the DNS settings of %s are not taken back: %s", change.link.name.c_str(), error.what());
        return;
    }
    ResolvedManager manager(std::move(bus));
    const auto now = manager.read(change.link.index);
    if (!now) return;
    const LinkDns target = takenBack(change, *now);
    if (!(target == *now)) putBack(manager, change.link.index, target);
}

}  // namespace vknetconfig
