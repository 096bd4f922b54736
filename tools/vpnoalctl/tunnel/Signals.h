// SPDX-License-Identifier: Apache-2.0
//
// Signals as events, so that an interruption never ends the process between applying and restoring: SIGINT, SIGTERM,
// SIGHUP and SIGCHLD stay pending until take(), and SIGPIPE is ignored. Create it before the first thread, because
// threads inherit the blocked signals.
#ifndef VPNOALCTL_SIGNALS_H
#define VPNOALCTL_SIGNALS_H

#include <csignal>
#include <initializer_list>

#include "handles/UniqueFd.h"

namespace vpnoalctl {

class Signals {
public:
    /// `more` stay pending as well.
    explicit Signals(std::initializer_list<int> more = {});
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;
    ~Signals();

    /// Readable while a signal is pending.
    int descriptor() const { return mDescriptor.get(); }
    struct Notice {
        int number = 0;               ///< 0: none is pending
        bool isFromTerminal = false;  ///< the terminal has sent it to the whole process group
    };
    /// Takes one signal.
    Notice takeNotice() const;
    int take() const { return takeNotice().number; }
    /// True when SIGINT, SIGTERM or SIGHUP came. Takes all pending signals.
    bool isInterrupted();

private:
    sigset_t mBefore;
    struct sigaction mPipeBefore;
    UniqueFd mDescriptor;
    bool mInterrupted = false;
};

}  // namespace vpnoalctl

#endif
