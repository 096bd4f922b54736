// SPDX-License-Identifier: Apache-2.0
#include "StagingFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace wfoal {

namespace {

constexpr mode_t ownerOnly = S_IRUSR | S_IWUSR;
constexpr mode_t othersWrite = S_IWGRP | S_IWOTH;
constexpr mode_t everybody = S_IRWXU | S_IRWXG | S_IRWXO;
// The log tells how much was accepted before a failure, so the size of a block shows there.
constexpr std::size_t blockSize = 2047;

Fault anotherOwner(const struct stat& status)
{
    return {"belongs to user " + std::to_string(status.st_uid)};
}

Fault systemFault()
{
    return {std::strerror(errno)};
}

Check checkFolder(int folder)
{
    struct stat status {};
    if (fstat(folder, &status) != 0) return systemFault();
    if (S_ISLNK(status.st_mode)) return Fault{"is a symbolic link"};
    if (!S_ISDIR(status.st_mode)) return Fault{"is no directory"};
    const bool isMine = status.st_uid == geteuid();
    if (!isMine && status.st_uid != 0) return anotherOwner(status);
    if (!isMine || (status.st_mode & othersWrite) == 0) return passed();
    // The descriptor is only a place, which fchmod() does not take.
    if (fchmodat(folder, ".", status.st_mode & ~(S_IFMT | othersWrite), 0) == 0) return passed();
    return Fault{std::string("others may write there, which cannot be changed: ") + std::strerror(errno)};
}

// Empties the file when it is safe.
Check prepareFile(int file)
{
    struct stat status {};
    if (fstat(file, &status) != 0) return systemFault();
    if (!S_ISREG(status.st_mode)) return Fault{"is no regular file"};
    if (status.st_uid != geteuid()) return anotherOwner(status);
    if (status.st_nlink > 1) return Fault{"has another name too"};
    if (fchmod(file, ownerOnly) != 0 || ftruncate(file, 0) != 0) return systemFault();
    return passed();
}

bool isFolder(const char* path)
{
    struct stat status {};
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

bool writeBlock(int file, const unsigned char* data, std::size_t length)
{
    while (length > 0) {
        const ssize_t written = write(file, data, length);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return false;
        data += written;
        length -= static_cast<std::size_t>(written);
    }
    return true;
}

}  // namespace

bool makeStagingFolder(std::string path)
{
    for (std::size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
        path[end] = '\0';
        const bool isThere = mkdir(path.c_str(), everybody) == 0 || (errno == EEXIST && isFolder(path.c_str()));
        path[end] = '/';
        if (!isThere) return false;
    }
    return true;
}

Result<UniqueFd> openStagingFolder(const std::string& path)
{
    UniqueFd folder(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!folder.valid()) return systemFault();
    if (const Check check = checkFolder(folder.get()); !check) return Fault{check.reason()};
    return folder;
}

Result<UniqueFd> openStagingFile(const UniqueFd& folder, const std::string& name)
{
    constexpr int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    UniqueFd file(openat(folder.get(), name.c_str(), flags, ownerOnly));
    if (!file.valid() && errno == ELOOP) return Fault{"is a symbolic link"};
    if (!file.valid()) return systemFault();
    if (const Check check = prepareFile(file.get()); !check) return Fault{check.reason()};
    return file;
}

bool writeStagingFile(UniqueFd file, const unsigned char* data, std::size_t length, std::size_t& accepted)
{
    accepted = 0;
    while (accepted < length) {
        const std::size_t block = std::min(blockSize, length - accepted);
        accepted += block;
        if (!writeBlock(file.get(), data + accepted - block, block)) return false;
    }
    // Closing is part of writing: some file systems only tell then that there was no room.
    return close(file.release()) == 0;
}

}  // namespace wfoal
