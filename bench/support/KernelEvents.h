// SPDX-License-Identifier: Apache-2.0
//
// When the kernel announces a change of a link or a route, and how to change a link without starting a program.
#ifndef WFOAL_BENCH_KERNELEVENTS_H
#define WFOAL_BENCH_KERNELEVENTS_H

#include <linux/netlink.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include "handles/UniqueFd.h"

namespace bench {

using Clock = std::chrono::steady_clock;

/// Notes when the kernel announced something of the kind last asked for, on a thread of its own.
class KernelEvents {
public:
    KernelEvents();
    ~KernelEvents();
    void await(std::uint16_t type) { mType.store(type); }
    void forget() { mIsSeen.store(false); }
    /// When the first message since forget() arrived, which is waited for. The thread may be late where others use the
    /// processors as well; the kernel had sent the message at `done`, when the change was done.
    Clock::time_point firstBefore(Clock::time_point done) const;

private:
    void listen();

    const UniqueFd mSocket{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)};
    std::atomic<Clock::time_point> mFirst{};
    std::atomic<bool> mIsSeen{false};
    std::atomic<std::uint16_t> mType{0};
    std::atomic<bool> mIsStopped{false};
    std::thread mThread;
};

/// Sets a link up or down. Ends the process when the kernel refuses.
void setLink(const char* name, bool isUp);

}  // namespace bench

#endif
