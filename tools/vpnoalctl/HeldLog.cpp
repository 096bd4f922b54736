// SPDX-License-Identifier: Apache-2.0
#include "HeldLog.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>

#include "io/WholeFile.h"

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
    lseek(mHeld.get(), 0, SEEK_SET);
    // stderr is unbuffered, and a failure cannot be reported.
    if (const auto text = wfoal::readWhole(mHeld.get()))
        static_cast<void>(std::fwrite(text->data(), 1, text->size(), stderr));
}

}  // namespace vpnoalctl
