// SPDX-License-Identifier: Apache-2.0
//
// From rtnetlink messages to plain values. No system call.
#ifndef CONMAN_SNAPSHOTPARSER_H
#define CONMAN_SNAPSHOTPARSER_H

#include <linux/netlink.h>

#include "Snapshot.h"

namespace conman {

/// Enters what a message of a dump says. Malformed ones, and what is of no interest, leave the snapshot alone.
void addToSnapshot(const nlmsghdr& message, Snapshot& snapshot);

/// An event after which the snapshot may be another.
bool mayChangeSnapshot(const nlmsghdr& message);

}  // namespace conman

#endif
