// SPDX-License-Identifier: Apache-2.0
//
// Real system daemons for a test: a private bus, and systemd-resolved, elogind and NetworkManager as unpacked by
// fetch-daemons.sh. They live in the test's own namespaces and end with the object that was returned. Their logs are
// /run/private/NAME.log. Everything here throws std::runtime_error, with the log, when a daemon does not come up.
//
//     if (const std::string reason = daemonUnavailable(Daemon::resolved); !reason.empty()) GTEST_SKIP() << reason;
//     const ChildProcess bus = startBus();
//     ChildProcess resolved = startDaemon(Daemon::resolved);
#ifndef WFOAL_TEST_DAEMONS_H
#define WFOAL_TEST_DAEMONS_H

#include <string>
#include <vector>

#include "ChildProcess.h"

namespace testsupport {

enum class Daemon { resolved, elogind, networkManager };

/// Why the daemon cannot run here, or an empty text. Where skipping is forbidden (CI is set), a daemon that was not
/// fetched is no reason: starting it then fails.
std::string daemonUnavailable(Daemon daemon);

/// Starts the private bus and waits until it listens. Also points DBUS_SYSTEM_BUS_ADDRESS of this process at it.
ChildProcess startBus();

/// The same with the distribution's configuration of the system bus and the policies that this project and the daemons
/// install, where startBus() allows everything. Not in a user namespace with one user: dbus-daemon becomes another.
ChildProcess startSystemBus();

/// Starts a daemon on the private bus and waits until it has its name there. elogind gets a private /sys/power.
ChildProcess startDaemon(Daemon daemon);

/// The same with several at once, which takes no longer than the slowest.
std::vector<ChildProcess> startDaemons(const std::vector<Daemon>& daemons);

/// Waits until `name` has an owner on the private bus, or `process`, which is to own it, has ended.
void waitForBusName(const std::string& name, const ChildProcess& process);

/// The command that runs a client program which fetch-daemons.sh unpacked: resolvectl, nmcli, loginctl.
std::string daemonTool(const std::string& name);

/// Puts Debian's resolvconf, which fetch-daemons.sh unpacked, where it is when it is installed, with an empty
/// /etc/resolv.conf that it keeps. Returns why that cannot be done here, or an empty text. Done once, it stays.
std::string mountResolvconf();

}  // namespace testsupport

#endif
