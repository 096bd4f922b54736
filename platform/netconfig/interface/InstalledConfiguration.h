// SPDX-License-Identifier: Apache-2.0
//
// The kernel's part of an interface's configuration: link, addresses and routes of a record, installed and removed.
// Failures throw a RequestError with the key "netlink".
#ifndef VKNETCONFIG_INSTALLEDCONFIGURATION_H
#define VKNETCONFIG_INSTALLEDCONFIGURATION_H

#include <optional>

#include "kernel/NetlinkSocket.h"
#include "undolog/InterfaceRecord.h"

namespace vknetconfig {

using wfoal::InterfaceRecord;

class InstalledConfiguration {
public:
    explicit InstalledConfiguration(NetlinkSocket& socket) : mSocket(socket) {}

    /// What of the record is installed, and ours. An ended process may have been in the middle of a change: then its
    /// record names what is not there, or no more.
    InterfaceRecord installedPart(InterfaceRecord record);

    /// The part of a record that is not, or no longer, installed.
    InterfaceRecord partNotInstalled(const InterfaceRecord& record);

    /// Yields the first failure, when there is one; then the rest may have been left out.
    std::optional<NetlinkFailure> install(const InterfaceRecord& record);

    /// Removes what is still there and still ours.
    void remove(const InterfaceRecord& record);

private:
    // Whether the record is about an interface that exists: one that got its index later has another name.
    bool isThere(const InterfaceRecord& record);
    void removeRoutes(const InterfaceRecord& record);
    void removeAddresses(const InterfaceRecord& record);
    void restoreLink(const InterfaceRecord& record);

    NetlinkSocket& mSocket;
};

}  // namespace vknetconfig

#endif
