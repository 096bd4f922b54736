// SPDX-License-Identifier: Apache-2.0
//
// Blocks the agent's signals on the calling thread: during a request, whose system calls they would interrupt, and
// while the library starts a thread, which inherits the mask. A signal that is sent to the process goes to another
// thread or waits. Signals that a fault of the thread itself raises are not blocked.
#ifndef VKNETCONFIG_SIGNALSBLOCKED_H
#define VKNETCONFIG_SIGNALSBLOCKED_H

#include <pthread.h>
#include <signal.h>

namespace vknetconfig {

class SignalsBlocked {
public:
    SignalsBlocked()
    {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
            sigdelset(&blocked, fault);
        pthread_sigmask(SIG_BLOCK, &blocked, &mBefore);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &mBefore, nullptr); }

private:
    sigset_t mBefore{};
};

}  // namespace vknetconfig

#endif
