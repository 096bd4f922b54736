// SPDX-License-Identifier: Apache-2.0
//
// Handing messages to journald, in its own protocol. libsystemd's functions wait for as long as journald does not read;
// here nobody waits for long, since a message may be logged while others wait for the one who logs.
#ifndef VKLOG_JOURNALD_H
#define VKLOG_JOURNALD_H

#include <chrono>
#include <string>

namespace vklog {

enum class Handover {
    done,    // journald has it, or it is counted as dropped
    absent,  // there is no journald
};

/// How long one thread waits for a journald that does not read, once: after that nobody waits until it reads again.
constexpr auto journaldPatience = std::chrono::milliseconds(100);

/// Hands over one message under the identifier `name`. What journald has no room for is dropped and counted; how much
/// is told, as a message of its own, before the next one that it takes. Thread-safe. Throws std::bad_alloc only.
Handover toJournald(const std::string& name, int level, const std::string& message);

}  // namespace vklog

#endif
