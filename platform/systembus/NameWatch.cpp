// SPDX-License-Identifier: Apache-2.0
#include "NameWatch.h"

#include <utility>

namespace hostbus {

// The match is asked for before the question, and the daemon keeps their order, so that no change is missed.
NameWatch::NameWatch(sd_bus* bus, const std::string& name, Changed changed)
    : mChanged(std::move(changed)),
      mMatch(bus, nameOwnerChanged("arg0='" + name + "'"), [this](sd_bus_message* signal) {
          const char* unused = nullptr;
          const char* owner = nullptr;
          if (sd_bus_message_read(signal, "sss", &unused, &unused, &owner) > 0) found(owner);
      })
{
    const auto onOwner = [](sd_bus_message* reply, void* self, sd_bus_error*) -> int {
        const char* owner = nullptr;
        const bool owned =
            !sd_bus_message_is_method_error(reply, nullptr) && sd_bus_message_read(reply, "s", &owner) > 0;
        static_cast<NameWatch*>(self)->found(owned ? owner : "");
        return 0;
    };
    sd_bus_slot* slot = nullptr;
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
