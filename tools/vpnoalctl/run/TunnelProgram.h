// SPDX-License-Identifier: Apache-2.0
//
// What makes the tunnel's device and carries its packets, as `run` sees it: a command, or a device of the kernel with
// what belongs to it. The tunnel's configuration lives as long as it does.
#ifndef VPNOALCTL_TUNNELPROGRAM_H
#define VPNOALCTL_TUNNELPROGRAM_H

#include <chrono>
#include <optional>

#include "run/PhysicalInterface.h"

namespace vpnoalctl {

class TunnelProgram {
public:
    using Clock = std::chrono::steady_clock;

    TunnelProgram() = default;
    TunnelProgram(const TunnelProgram&) = delete;
    TunnelProgram& operator=(const TunnelProgram&) = delete;
    virtual ~TunnelProgram() = default;

    /// Throws CommandError.
    virtual void start(const PhysicalInterface& physical) = 0;
    virtual bool isStarted() const = 0;
    /// Passes a signal on, as long as it runs.
    virtual void signal(int number) = 0;
    /// An interface that is not preferred has gone, or its address. The program may still send from it.
    virtual void onPathLost() {}
    /// Has it end. The signal is the reason, and it is the terminal's when it has been sent already.
    virtual void end(int signal, bool isSignalled) = 0;
    virtual bool isEnding() const = 0;
    /// When check() must be called at the latest.
    virtual std::optional<Clock::time_point> deadline() const = 0;
    /// Readable when it has ended; -1: there is nothing to wait for.
    virtual int descriptor() const = 0;
    /// Its exit status once it has ended.
    virtual std::optional<int> check() = 0;

    /// The configuration was applied for the first time. Throws CommandError, which ends the tunnel.
    virtual void onApplied() {}
    /// It has ended, and the configuration is restored next.
    virtual void onEnded() {}
};

}  // namespace vpnoalctl

#endif
