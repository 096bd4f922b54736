// SPDX-License-Identifier: Apache-2.0
//
// Converts rtnetlink messages to plain values. No system call.
#ifndef CONNECTIONMANAGER_SNAPSHOTPARSER_H
#define CONNECTIONMANAGER_SNAPSHOTPARSER_H

#include <linux/netlink.h>

#include "Snapshot.h"

namespace connectionmanager {

/// Adds the content of a message of a dump. Malformed and irrelevant messages leave the snapshot unchanged.
void addToSnapshot(const nlmsghdr& message, Snapshot& snapshot);

/// Whether the message is an event that can change a snapshot.
bool mayChangeSnapshot(const nlmsghdr& message);

}  // namespace connectionmanager

#endif
