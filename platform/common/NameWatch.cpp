// SPDX-License-Identifier: Apache-2.0
#include "NameWatch.h"

#include <utility>

namespace hostbus {

namespace {

constexpr char daemonName[] = "org.freedesktop.DBus";
constexpr char daemonPath[] = "/org/freedesktop/DBus";

}  // namespace

// The match is asked for before the question, and the daemon keeps their order, so that no change is missed.
NameWatch::NameWatch(sd_bus* bus, const std::string& name, Changed changed) : mChanged(std::move(changed))
{
    const std::string rule =
        "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
        "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
        name + "'";
    const auto onChanged = [](sd_bus_message* message, void* self, sd_bus_error*) -> int {
        const char* unused = nullptr;
        const char* owner = nullptr;
        if (sd_bus_message_read(message, "sss", &unused, &unused, &owner) > 0) {
            static_cast<NameWatch*>(self)->found(owner);
        }
        return 0;
    };
    const auto onOwner = [](sd_bus_message* reply, void* self, sd_bus_error*) -> int {
        const char* owner = nullptr;
        const bool owned =
            !sd_bus_message_is_method_error(reply, nullptr) && sd_bus_message_read(reply, "s", &owner) > 0;
        static_cast<NameWatch*>(self)->found(owned ? owner : "");
        return 0;
    };
    sd_bus_slot* slot = nullptr;
    if (sd_bus_add_match_async(bus, &slot, rule.c_str(), onChanged, nullptr, this) >= 0) mMatch.reset(slot);
    slot = nullptr;
    if (sd_bus_call_method_async(bus, &slot, daemonName, daemonPath, daemonName, "GetNameOwner", onOwner, this, "s",
                                 name.c_str()) >= 0) {
        mQuestion.reset(slot);
    }
}

void NameWatch::found(const std::string& owner)
{
    if (mOwner == owner) return;
    mOwner = owner;
    const Changed changed = mChanged;  // the watch may be gone when it returns
    changed(owner);
}

}  // namespace hostbus
