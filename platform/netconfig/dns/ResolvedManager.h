// SPDX-License-Identifier: Apache-2.0
//
// Talking with systemd-resolved over the system bus (DBUS_SYSTEM_BUS_ADDRESS is honoured). An object has a connection
// of its own and belongs to one thread. Failures throw a RequestError with the key "ipv4.dns"; nothing takes longer
// than a few seconds.
#ifndef VKNETCONFIG_RESOLVEDMANAGER_H
#define VKNETCONFIG_RESOLVEDMANAGER_H

#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "dns/LinkDns.h"
#include "handles/SdBus.h"

namespace vknetconfig {

inline constexpr char resolvedName[] = "org.freedesktop.resolve1";

/// A connection to the system bus that is ready to be used. With `stop`, a descriptor, it is given up when that becomes
/// readable.
SdBusPtr openSystemBus(int stop = -1);

/// Dispatches what has arrived.
void processPending(sd_bus* bus);

/// Waits until something arrives, at most until `end`. False when `stop` is readable (-1: never).
bool waitForEvents(sd_bus* bus, int stop, std::chrono::steady_clock::time_point end);

class ResolvedManager {
public:
    ResolvedManager() : mBus(openSystemBus()) {}
    explicit ResolvedManager(SdBusPtr bus) : mBus(std::move(bus)) {}
    sd_bus* bus() { return mBus.get(); }

    /// Whether it answers. It is started when the bus knows how.
    bool answers();

    /// Who it is: another text after each restart of it or of the bus. Empty when it is not there.
    std::string owner();

    /// What it has of a link; nothing when the link, or the service, is not there.
    std::optional<LinkDns> read(int index);

    void write(int index, const LinkDns& dns);

    /// Brings the link, which has `now`, to what it had `before` somebody set servers, domains and default route. What
    /// is set beside these stays as it is.
    void restore(int index, const LinkDns& before, const LinkDns& now);

private:
    void writeServers(int index, const LinkDns& dns);
    void writeDomains(int index, const LinkDns& dns);
    void writeDefaultRoute(int index, const LinkDns& dns);
    void revert(int index);
    std::string pathOf(int index);
    std::string otherSettings(int index);

    SdBusPtr mBus;
};

}  // namespace vknetconfig

#endif
