// SPDX-License-Identifier: Apache-2.0
//
// Who owns a name on the bus: told once with the state found, and then on each change. For the life of one bus
// object, on its thread.
#ifndef HOSTBUS_NAMEWATCH_H
#define HOSTBUS_NAMEWATCH_H

#include <functional>
#include <optional>
#include <string>

#include "SignalMatch.h"
#include "handles/SdBus.h"

namespace hostbus {

class NameWatch {
public:
    /// The owner's unique name, empty when there is none. May destroy the watch as its last act.
    using Changed = std::function<void(const std::string& owner)>;

    /// `name` must be a valid bus name.
    NameWatch(sd_bus* bus, const std::string& name, Changed changed);
    NameWatch(const NameWatch&) = delete;
    NameWatch& operator=(const NameWatch&) = delete;

private:
    void found(const std::string& owner);

    Changed mChanged;
    std::optional<std::string> mOwner;  // nothing before the first answer
    SignalMatch mMatch;
    SdBusSlotPtr mQuestion;
};

}  // namespace hostbus

#endif
