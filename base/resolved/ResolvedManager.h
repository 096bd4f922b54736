// SPDX-License-Identifier: Apache-2.0
//
// A client of systemd-resolved on the system bus (DBUS_SYSTEM_BUS_ADDRESS is honoured). An object has a connection of
// its own and belongs to one thread. Failures throw a JsonError with the key "ipv4.dns" within a few seconds.
#ifndef WFOAL_RESOLVEDMANAGER_H
#define WFOAL_RESOLVEDMANAGER_H

#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "handles/SdBus.h"
#include "resolved/LinkDns.h"
#include "resolved/LinkMessages.h"

namespace wfoal {

/// A connection to the system bus that is made while the process does something else.
SdBusPtr startSystemBus();

/// A connection to the system bus that is ready to be used. Throws when the descriptor `stop` becomes readable before.
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

    /// Whether it answers. The bus, which need not be ready, may start it for that. `settings` gets those of the link,
    /// where there are any.
    bool answers(int index, std::optional<LinkDns>& settings);

    /// Its owner on the bus: another text after each restart of it or of the bus. Empty when it is not running.
    std::string owner();

    /// The settings of a link; none when the link, or the service, is not there.
    std::optional<LinkDns> read(int index);

    /// Returns the owner that has taken the settings, as owner() does.
    std::string write(int index, const LinkDns& dns);

    /// Changes the link's servers, domains and default route from `now` to `before`. Its other settings stay.
    void restore(int index, const LinkDns& before, const LinkDns& now);

    /// Restores what the link had before the change, where it still has what was set. The link is identified by its
    /// index, which stays with it when it is renamed. False when the service, or the link in it, is not there.
    bool undo(const LinkChange& change);

private:
    void writeServers(int index, const LinkDns& dns);
    void writeDomains(int index, const LinkDns& dns);
    std::string writeDefaultRoute(int index, const LinkDns& dns);
    void revert(int index);
    std::string withBusId(const std::string& name);
    SdBusMessagePtr propertiesOf(int index);
    std::string otherSettings(int index);

    SdBusPtr mBus;
};

}  // namespace wfoal

#endif
