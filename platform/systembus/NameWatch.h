// SPDX-License-Identifier: Apache-2.0
//
// Watches who owns a name on the bus. Its callback is called once with the first answer, and then on each change. For
// the life of one bus object, on its thread.
#ifndef SYSTEMBUS_NAMEWATCH_H
#define SYSTEMBUS_NAMEWATCH_H

#include <functional>
#include <optional>
#include <string>

#include "SignalMatch.h"
#include "handles/SdBus.h"

namespace systembus {

class NameWatch {
public:
    /// The owner's unique name, empty when there is none. May destroy the watch as its last act.
    using Changed = std::function<void(const std::string& owner)>;

    /// `name` must be a valid bus name.
    NameWatch(sd_bus* bus, const std::string& name, Changed changed);
    NameWatch(const NameWatch&) = delete;
    NameWatch& operator=(const NameWatch&) = delete;

private:
    void setOwner(const std::string& owner);

    Changed mChanged;
    std::optional<std::string> mOwner;  // none before the first answer
    SignalMatch mMatch;
    SdBusSlotPtr mOwnerQuery;
};

}  // namespace systembus

#endif
