// SPDX-License-Identifier: Apache-2.0
//
// The one way to listen to a signal of another program on the bus. Any user may send any signal straight to a
// connection, and sd-bus lets it through a match on a well-known name, since only the bus daemon knows who owns that.
// So a match names its sender as the daemon does, by the unique name or as the daemon itself, and what comes from
// anybody else is dropped here. For the life of one bus object, on its thread. Without GLib.
#ifndef HOSTBUS_SIGNALMATCH_H
#define HOSTBUS_SIGNALMATCH_H

#include <functional>
#include <string>

#include "handles/SdBus.h"

namespace hostbus {

/// The bus daemon, as a sender and as an object.
inline constexpr char daemonName[] = "org.freedesktop.DBus";
inline constexpr char daemonPath[] = "/org/freedesktop/DBus";

struct SignalRule {
    std::string sender;  // a unique name, or daemonName
    std::string path;
    std::string interface;
    std::string member;
    std::string arguments;  // more of the rule, as "arg0='name'"; may be empty
};

/// The signal by which the bus daemon tells that a name has another owner. `arguments` as in a rule.
SignalRule nameOwnerChanged(const std::string& arguments);

class SignalMatch {
public:
    /// May destroy the match as its last act.
    using Handler = std::function<void(sd_bus_message* signal)>;

    /// A daemon that refuses the rule later ends the connection, so that nobody waits for signals in vain.
    SignalMatch(sd_bus* bus, const SignalRule& rule, Handler handler);
    SignalMatch(const SignalMatch&) = delete;
    SignalMatch& operator=(const SignalMatch&) = delete;

    /// 0, or a negative errno value when the rule could not be asked for.
    int result() const { return mResult; }

private:
    static int onSignal(sd_bus_message* signal, void* self, sd_bus_error* error);

    const std::string mSender;
    const Handler mHandler;
    SdBusSlotPtr mSlot;
    int mResult = 0;
};

}  // namespace hostbus

#endif
