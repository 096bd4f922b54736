// SPDX-License-Identifier: Apache-2.0
//
// Listens to a signal of one program on the bus. Any user may send any signal straight to a connection. sd-bus lets it
// through a match on a well-known name, because only the bus daemon knows who owns that name. So a match names its
// sender by the unique name, or as the daemon itself, and drops signals of others. For the life of one bus object, on
// its thread. Without GLib.
#ifndef SYSTEMBUS_SIGNALMATCH_H
#define SYSTEMBUS_SIGNALMATCH_H

#include <functional>
#include <string>

#include "handles/SdBus.h"

namespace systembus {

/// The bus daemon, as a sender and as an object.
inline constexpr char daemonName[] = "org.freedesktop.DBus";
inline constexpr char daemonPath[] = "/org/freedesktop/DBus";

struct SignalRule {
    std::string sender;  // a unique name, or daemonName
    std::string path;
    std::string interface;
    std::string member;
    std::string arguments;  // further conditions, as "arg0='name'"; may be empty
};

/// The bus daemon's signal that the name has another owner.
SignalRule ownerChangesOf(const std::string& name);
/// The same of all names that nobody owns any more.
SignalRule releasesOfNames();

class SignalMatch {
public:
    /// May destroy the match as its last act.
    using Handler = std::function<void(sd_bus_message* signal)>;

    /// If the daemon refuses the rule later, the connection ends, so nobody waits for signals in vain.
    SignalMatch(sd_bus* bus, const SignalRule& rule, Handler handler);
    SignalMatch(const SignalMatch&) = delete;
    SignalMatch& operator=(const SignalMatch&) = delete;

    /// 0, or a negative errno value when the rule could not be sent.
    int result() const { return mResult; }

private:
    static int onSignal(sd_bus_message* signal, void* self, sd_bus_error* error);

    const std::string mSender;
    const Handler mHandler;
    SdBusSlotPtr mSlot;
    int mResult = 0;
};

/// A handler of either rule above. An `owner` that is empty is none.
SignalMatch::Handler onOwnerChange(std::function<void(const std::string& name, const std::string& owner)> handler);

}  // namespace systembus

#endif
