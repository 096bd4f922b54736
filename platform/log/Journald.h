// SPDX-License-Identifier: Apache-2.0
//
// Sends messages to journald, in its own protocol. libsystemd's functions wait as long as journald does not read. Here
// no thread waits for long, because other threads may be waiting for the one that logs.
#ifndef VKLOG_JOURNALD_H
#define VKLOG_JOURNALD_H

#include <chrono>
#include <string>

namespace vklog {

enum class Delivery {
    Done,    // journald has it, or it is counted as dropped
    Absent,  // there is no journald
};

/// How long a thread waits for a journald that does not read. After that no thread waits until it reads again.
constexpr auto longestJournaldWait = std::chrono::milliseconds(100);

/// Sends one message under the identifier `name`. Messages that journald has no room for are dropped and counted; the
/// count is logged before the next message that it takes. Thread-safe. Throws std::bad_alloc only.
Delivery toJournald(const std::string& name, int level, const std::string& message);

}  // namespace vklog

#endif
