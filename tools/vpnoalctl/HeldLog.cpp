// SPDX-License-Identifier: Apache-2.0
#include "HeldLog.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace vpnoalctl {

HeldLog::HeldLog(bool wanted)
{
    if (!wanted) return;
    mHeld.reset(memfd_create("log", MFD_CLOEXEC));
    UniqueFd original(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (!mHeld.valid() || !original.valid()) return;
    if (dup2(mHeld.get(), STDERR_FILENO) >= 0) mStderr.reset(original.release());
}

HeldLog::~HeldLog()
{
    letThrough();
}

void HeldLog::letThrough()
{
    if (!mStderr.valid()) return;
    dup2(mStderr.get(), STDERR_FILENO);
    mStderr.reset();
}

void HeldLog::show()
{
    if (!mStderr.valid()) return;
    letThrough();
    char block[4096];
    off_t offset = 0;
    for (;;) {
        const ssize_t length = pread(mHeld.get(), block, sizeof block, offset);
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) return;
        // stderr is unbuffered, and a failure cannot be reported.
        static_cast<void>(std::fwrite(block, 1, static_cast<std::size_t>(length), stderr));
        offset += length;
    }
}

}  // namespace vpnoalctl
