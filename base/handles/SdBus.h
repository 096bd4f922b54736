// SPDX-License-Identifier: Apache-2.0
//
// Owners of sd-bus objects.
#ifndef HANDLES_SDBUS_H
#define HANDLES_SDBUS_H

#include <systemd/sd-bus.h>

#include <memory>

/// Closes without flushing, which could wait for a daemon that does not read.
struct SdBusReleaser {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
using SdBusPtr = std::unique_ptr<sd_bus, SdBusReleaser>;

struct SdBusMessageReleaser {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using SdBusMessagePtr = std::unique_ptr<sd_bus_message, SdBusMessageReleaser>;

struct SdBusCredsReleaser {
    void operator()(sd_bus_creds* credentials) const { sd_bus_creds_unref(credentials); }
};
using SdBusCredsPtr = std::unique_ptr<sd_bus_creds, SdBusCredsReleaser>;

/// A match, object or pending call; releasing it cancels it.
struct SdBusSlotReleaser {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using SdBusSlotPtr = std::unique_ptr<sd_bus_slot, SdBusSlotReleaser>;

/// Calls a function of sd-bus that makes an object: `call` gets the address of the out-parameter. The owner gets the
/// object; after a failure it stays as it was. Returns the function's result.
template <class Owner, class Call>
int obtain(Owner& owner, Call call)
{
    typename Owner::pointer object = nullptr;
    const int result = call(&object);
    if (result >= 0) owner.reset(object);
    return result;
}

#endif
