// SPDX-License-Identifier: Apache-2.0
#include "tunnel/OwnershipWatch.h"

#include <sys/inotify.h>
#include <sys/stat.h>

#include <cerrno>

#include "CommandError.h"
#include "tunnel/InstalledState.h"
#include "tunnel/TunDevice.h"
#include "undolog/UndoLogFiles.h"

namespace vpnoalctl {

namespace {

// 0 for a file that is not there.
ino_t inodeOf(const std::string& path)
{
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

}  // namespace

OwnershipWatch::OwnershipWatch() : mNotices(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
{
    if (!mNotices.valid()) throw systemError("inotify", errno, "free resources and try again");
    for (const std::string& file : undoLogFiles()) {
        const std::string lock = file + std::string(wfoal::lockSuffix);
        const ino_t inode = inodeOf(lock);
        if (inode == 0) continue;
        mLocks[lock] = inode;
        // Removing an open file changes its number of links. check() notices a file that is gone already.
        if (inotify_add_watch(mNotices.get(), lock.c_str(), IN_ATTRIB | IN_DELETE_SELF) < 0 && errno != ENOENT) {
            throw systemError(lock, errno, "free resources and try again");
        }
    }
}

void OwnershipWatch::check() const
{
    // The content of a notice does not matter: the folder is checked.
    alignas(inotify_event) char notices[4096];
    while (read(mNotices.get(), notices, sizeof notices) > 0) {
    }
    for (const auto& [path, inode] : mLocks) {
        if (inodeOf(path) == inode) continue;
        throw CommandError(tunnelDeviceName, "another process removed the tunnel's configuration",
                           "the log names it; connect again when it is wanted");
    }
}

}  // namespace vpnoalctl
