// SPDX-License-Identifier: Apache-2.0
#include "tunnel/Signals.h"

#include <sys/signalfd.h>

#include <cerrno>

#include "CommandError.h"

namespace vpnoalctl {

Signals::Signals(std::initializer_list<int> more)
{
    sigset_t waited;
    sigemptyset(&waited);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD})
        sigaddset(&waited, signal);
    for (const int signal : more)
        sigaddset(&waited, signal);
    mDescriptor.reset(signalfd(-1, &waited, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!mDescriptor.valid()) throw systemError("signalfd", errno, "free resources and try again");
    pthread_sigmask(SIG_BLOCK, &waited, &mBefore);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &mPipeBefore);
}

Signals::~Signals()
{
    // Drop pending signals: everything is restored, so they are answered.
    while (take() != 0) {
    }
    sigaction(SIGPIPE, &mPipeBefore, nullptr);
    pthread_sigmask(SIG_SETMASK, &mBefore, nullptr);
}

Signals::Notice Signals::takeNotice() const
{
    signalfd_siginfo signal{};
    if (read(mDescriptor.get(), &signal, sizeof signal) != static_cast<ssize_t>(sizeof signal)) return {};
    return {static_cast<int>(signal.ssi_signo), signal.ssi_code == SI_KERNEL};
}

bool Signals::isInterrupted()
{
    while (const int signal = take())
        mInterrupted = mInterrupted || signal != SIGCHLD;
    return mInterrupted;
}

}  // namespace vpnoalctl
