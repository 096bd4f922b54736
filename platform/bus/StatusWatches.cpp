// SPDX-License-Identifier: Apache-2.0
#include "StatusWatches.h"

#include <new>

namespace quor {

void StatusWatches::add(sd_bus* bus, const std::string& service, QSServerStatusCallback callback, void* userData)
{
    Watch& watch = mWatches.emplace_back();
    watch.callback = callback;
    watch.userData = userData;
    try {
        watch.service = service;
        if (bus != nullptr) watchName(watch, bus);
    } catch (const std::bad_alloc&) {
        mWatches.pop_back();
        throw;
    }
    if (bus == nullptr) notify(watch, false);
}

void StatusWatches::onBusConnected(sd_bus* bus)
{
    for (Watch& watch : mWatches)
        watchName(watch, bus);
}

void StatusWatches::onBusLost()
{
    for (Watch& watch : mWatches) {
        watch.name.reset();
        onOwner(watch, {});
    }
}

void StatusWatches::watchName(Watch& watch, sd_bus* bus)
{
    watch.name = std::make_unique<systembus::NameWatch>(
        bus, watch.service, [this, &watch](const std::string& owner) { onOwner(watch, owner); });
}

void StatusWatches::onOwner(Watch& watch, const std::string& owner)
{
    // One process passed the name on to the next: for a client the service was gone in between.
    if (!owner.empty() && !watch.owner.empty() && owner != watch.owner) notify(watch, false);
    watch.owner = owner;
    notify(watch, !owner.empty());
}

void StatusWatches::notify(Watch& watch, bool connected)
{
    if (watch.notified == connected) return;
    watch.notified = connected;
    watch.callback(mHandle, watch.service.c_str(), connected, watch.userData);
}

}  // namespace quor
