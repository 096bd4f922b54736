// SPDX-License-Identifier: Apache-2.0
//
// An ordinary user of the device (uid 65534) on a private bus that enforces the policies of an installed device, and
// the signals that this user forges.
//
//     if (const std::string reason = attackerUnavailable(); !reason.empty()) GTEST_SKIP() << reason;
//     const ChildProcess bus = startSystemBus();
//     sendForgedSignal("/org/freedesktop/login1", "org.freedesktop.login1.Manager.PrepareForSleep", {"boolean:true"});
#ifndef WFOAL_TEST_ATTACKER_H
#define WFOAL_TEST_ATTACKER_H

#include <string>
#include <vector>

#include "ChildProcess.h"

namespace testsupport {

/// Why no process can run as another user here, or an empty text.
std::string attackerUnavailable();

/// A command that runs `command` as uid 65534.
std::vector<std::string> asOrdinaryUser(const std::vector<std::string>& command);

/// All names on the bus, the unique ones first.
std::vector<std::string> namesOnBus();

/// Sends a signal straight to each connection on the bus, as uid 65534. Arguments as dbus-send takes them. Throws
/// std::runtime_error when the bus does not carry it.
void sendForgedSignal(const std::string& path, const std::string& member, const std::vector<std::string>& arguments);

/// Tells each connection that each name on the bus, but the bus daemon's own, has no owner any more, or `newOwner`.
void forgeNameOwnerChanges(const std::string& newOwner = {});

}  // namespace testsupport

#endif
