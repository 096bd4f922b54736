// SPDX-License-Identifier: Apache-2.0
//
// Reads a complete snapshot from the kernel. A state that is only updated by events would go stale: the kernel sends no
// event for routes that are removed with their link.
#ifndef CONNECTIONMANAGER_SNAPSHOTREADER_H
#define CONNECTIONMANAGER_SNAPSHOTREADER_H

#include <optional>

#include "Snapshot.h"

namespace connectionmanager {

/// None, with `errno` set, after a failure. Takes well under a millisecond, or some milliseconds for ten thousand
/// routes.
std::optional<Snapshot> readSnapshot();

}  // namespace connectionmanager

#endif
