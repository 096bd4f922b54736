// SPDX-License-Identifier: Apache-2.0
#include "undolog/LockFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "RequestError.h"

namespace vknetconfig {

bool lockNow(int file)
{
    struct flock wanted {};
    const int mode = fcntl(file, F_GETFL);
    wanted.l_type = mode >= 0 && (mode & O_ACCMODE) == O_RDONLY ? F_RDLCK : F_WRLCK;
    wanted.l_whence = SEEK_SET;
    while (fcntl(file, F_SETLK, &wanted) != 0) {
        if (errno == EACCES || errno == EAGAIN) return false;
        if (errno != EINTR) throw systemError("undo log", "lock", errno);
    }
    return true;
}

void nameHolder(int file)
{
    const std::string text = std::to_string(getpid()) + "\n";
    if (ftruncate(file, 0) != 0 || pwrite(file, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        throw systemError("undo log", "write lock", errno);
    }
}

bool isLinked(int file, int folder, const std::string& name)
{
    struct stat held {};
    struct stat found {};
    return fstat(file, &held) == 0 && fstatat(folder, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
           held.st_ino == found.st_ino && held.st_dev == found.st_dev;
}

std::string holderText(pid_t holder)
{
    return holder > 0 ? "process " + std::to_string(holder) : std::string("another process");
}

}  // namespace vknetconfig
