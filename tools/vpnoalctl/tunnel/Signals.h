// SPDX-License-Identifier: Apache-2.0
//
// Signals as events, so that an interruption never ends the process between applying and restoring: SIGINT, SIGTERM,
// SIGHUP and SIGCHLD wait until they are asked for, and SIGPIPE is ignored. Made before anything starts a thread,
// because threads inherit what is blocked.
#ifndef VPNOALCTL_SIGNALS_H
#define VPNOALCTL_SIGNALS_H

#include <csignal>

#include "handles/UniqueFd.h"

namespace vpnoalctl {

class Signals {
public:
    Signals();
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;
    ~Signals();

    /// Readable when a signal waits.
    int descriptor() const { return mDescriptor.get(); }
    /// Takes one signal; 0 when none waits.
    int take() const;
    /// True when SIGINT, SIGTERM or SIGHUP came. Takes what waits.
    bool isInterrupted();

private:
    sigset_t mBefore;
    struct sigaction mPipeBefore;
    UniqueFd mDescriptor;
    bool mInterrupted = false;
};

}  // namespace vpnoalctl

#endif
