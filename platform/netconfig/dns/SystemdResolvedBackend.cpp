// SPDX-License-Identifier: Apache-2.0
#include "dns/SystemdResolvedBackend.h"

#include "Log.h"
#include "RequestError.h"
#include "resolved/ResolvedManager.h"

namespace vknetconfig {

namespace {

LinkDns readPresent(ResolvedManager& manager, const Link& link)
{
    auto found = manager.read(link.index);
    if (!found) throw RequestError("ipv4.dns", "systemd-resolved does not know the interface " + link.name);
    return *found;
}

// False when there is no systemd-resolved now.
bool undoNow(const LinkChange& change)
{
    if (!wfoal::hasIndex(change.link)) return true;
    SdBusPtr bus;
    try {
        bus = wfoal::openSystemBus();
    } catch (const RequestError&) {
        return false;  // no bus, no systemd-resolved
    }
    ResolvedManager manager(std::move(bus));
    return manager.undo(change);
}

}  // namespace

void SystemdResolvedBackend::begin()
{
    try {
        mStarted = wfoal::startSystemBus();
    } catch (const RequestError&) {
        // works() tries again.
    }
}

void SystemdResolvedBackend::end()
{
    mBefore.reset();
    mManager.reset();
    mStarted.reset();
}

bool SystemdResolvedBackend::works(const Link& link)
{
    mBefore.reset();
    mManager.reset();
    try {
        std::optional<LinkDns> dns;
        mManager.emplace(mStarted ? std::move(mStarted) : wfoal::startSystemBus());
        if (mManager->answers(link.index, dns)) {
            if (dns) mBefore = LinkBefore{link, std::move(*dns)};
            return true;
        }
    } catch (const RequestError&) {
        // no bus
    }
    mManager.reset();
    return false;
}

ResolvedManager SystemdResolvedBackend::takeManager()
{
    if (!mManager) return {};
    ResolvedManager manager = std::move(*mManager);
    mManager.reset();
    return manager;
}

std::string SystemdResolvedBackend::prepare(const Link& link, const DnsSettings& settings,
                                            const std::vector<std::string>& earlier)
{
    if (!mManager) mManager.emplace();
    if (!mBefore || !(mBefore->link == link)) mBefore = LinkBefore{link, readPresent(*mManager, link)};
    LinkChange change{link, wfoal::resolvedSettingsFor(settings), mBefore->dns};
    for (const std::string& line : earlier) {
        const LinkChange installed = LinkChange::decode(line);
        if (installed.link == link) change.before = stateAfterUndo(installed, change.before);
    }
    return change.encode();
}

void SystemdResolvedBackend::set(const Link& link, const DnsSettings& settings, IsWanted isWanted)
{
    const LinkDns wanted = wfoal::resolvedSettingsFor(settings);
    ResolvedManager manager = takeManager();
    const LinkDns before = mBefore && mBefore->link == link ? std::move(mBefore->dns) : readPresent(manager, link);
    mBefore.reset();
    try {
        const auto write = [&] { return manager.write(link.index, wanted); };
        mWatcher.setAndWatch(write, link, wanted, std::move(isWanted));
    } catch (const RequestError&) {
        try {
            manager.restore(link.index, before, readPresent(manager, link));
        } catch (const RequestError&) {
            // The first failure is the one to report.
        }
        throw;
    }
}

void SystemdResolvedBackend::setAgain(std::string_view prepared, IsWanted isWanted)
{
    const LinkChange change = LinkChange::decode(prepared);
    if (!wfoal::isPresent(change.link)) return;
    ResolvedManager manager;
    const auto write = [&] { return manager.write(change.link.index, change.set); };
    mWatcher.setAndWatch(write, change.link, change.set, std::move(isWanted));
}

bool SystemdResolvedBackend::undo(std::string_view prepared)
{
    const LinkChange change = LinkChange::decode(prepared);
    mWatcher.forget(change.link);
    if (undoNow(change)) return true;
    VKNETCONFIG_WARNING("the DNS settings of %s are removed when systemd-resolved answers again",
                        change.link.name.c_str());
    mWatcher.undoLater(change);
    return false;
}

}  // namespace vknetconfig
