// SPDX-License-Identifier: Apache-2.0
#include "NameWatch.h"

#include <utility>

#include "OutOfMemory.h"

namespace systembus {

// The daemon handles the match before the query, so no change is missed.
NameWatch::NameWatch(sd_bus* bus, const std::string& name, Changed changed)
    : mChanged(std::move(changed)),
      mMatch(bus, ownerChangesOf(name),
             onOwnerChange([this](const std::string&, const std::string& owner) { setOwner(owner); }))
{
    const auto onOwner = [](sd_bus_message* reply, void* self, sd_bus_error*) -> int {
        const char* owner = nullptr;
        const bool owned =
            !sd_bus_message_is_method_error(reply, nullptr) && sd_bus_message_read(reply, "s", &owner) > 0;
        return guarded([&] {
            static_cast<NameWatch*>(self)->setOwner(owned ? owner : "");
            return 0;
        });
    };
    orBadAlloc(mMatch.result());
    orBadAlloc(obtain(mOwnerQuery, [&](sd_bus_slot** slot) {
        return sd_bus_call_method_async(bus, slot, daemonName, daemonPath, daemonName, "GetNameOwner", onOwner, this,
                                        "s", name.c_str());
    }));
}

void NameWatch::setOwner(const std::string& owner)
{
    if (mOwner == owner) return;
    mOwner = owner;
    const Changed changed = mChanged;  // the call may destroy the watch
    changed(owner);
}

}  // namespace systembus
