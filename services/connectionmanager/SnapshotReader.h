// SPDX-License-Identifier: Apache-2.0
//
// Reads a snapshot from the kernel, whole each time. State kept up to date from events would go stale: routes that go
// with their link are not announced.
#ifndef CONMAN_SNAPSHOTREADER_H
#define CONMAN_SNAPSHOTREADER_H

#include <optional>

#include "Snapshot.h"

namespace conman {

/// Nothing, with `errno` set, when the kernel cannot be read. Takes well under a millisecond, or some milliseconds for
/// ten thousand routes.
std::optional<Snapshot> readSnapshot();

}  // namespace conman

#endif
