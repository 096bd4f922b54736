// SPDX-License-Identifier: Apache-2.0
//
// An agent of the soak: a process that loads the plug-in and makes one random operation after the other.
#ifndef WFOAL_ENDURANCE_SOAKAGENT_H
#define WFOAL_ENDURANCE_SOAKAGENT_H

#include <sys/types.h>

#include <atomic>

namespace endurance {

constexpr int soakAgents = 2;

/// What an agent tells, in memory that all share.
struct SoakReport {
    std::atomic<long> operations{0};
    std::atomic<long> failures{0};
    std::atomic<long> applied{0};
    std::atomic<long> refused{0};          // applies
    std::atomic<long> keptDescriptors{0};  // on purpose: a socket of each apply, and the file of each mapping
    std::atomic<long> events{0};
    std::atomic<bool> isPaused{false};
    // While it is paused: bytes of memory in use, and of route records, which are kept on purpose.
    std::atomic<long> bytes{0};
    std::atomic<long> keptBytes{0};
    char firstFailure[400] = {};
};

struct SoakShared {
    std::atomic<long> left{0};  // operations of all agents
    std::atomic<bool> pauses{false};
    std::atomic<bool> ends{false};
    SoakReport reports[soakAgents];
};

/// Starts agent `number`. It is killed when the caller ends.
pid_t startSoakAgent(int number, unsigned seed, SoakShared& shared);

}  // namespace endurance

#endif
