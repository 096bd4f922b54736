// SPDX-License-Identifier: Apache-2.0
#include "undolog/LockFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "RequestError.h"

namespace vknetconfig {

namespace {

bool lockAs(short type, int file)
{
    struct flock wanted {};
    wanted.l_type = type;
    wanted.l_whence = SEEK_SET;
    while (fcntl(file, F_SETLK, &wanted) != 0) {
        if (errno == EACCES || errno == EAGAIN) return false;
        if (errno != EINTR) throw systemError("undo log", "lock", errno);
    }
    return true;
}

}  // namespace

bool lockNow(int file)
{
    return lockAs(F_WRLCK, file);
}

bool lockToRead(int file)
{
    return lockAs(F_RDLCK, file);
}

void nameHolder(int file)
{
    const std::string text = std::to_string(getpid()) + "\n";
    char earlier[16];
    const ssize_t length = pread(file, earlier, sizeof earlier, 0);
    if (length > 0 && std::string_view(earlier, static_cast<std::size_t>(length)) == text) return;
    const bool isEmpty = length == 0 || ftruncate(file, 0) == 0;
    if (!isEmpty || pwrite(file, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
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

bool isEmpty(int file)
{
    struct stat status {};
    return fstat(file, &status) == 0 && status.st_size == 0;
}

std::string holderText(pid_t holder)
{
    return holder > 0 ? "process " + std::to_string(holder) : std::string("another process");
}

}  // namespace vknetconfig
