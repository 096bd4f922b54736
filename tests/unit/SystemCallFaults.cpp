// SPDX-License-Identifier: Apache-2.0
#include "SystemCallFaults.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

namespace faults {

namespace {

Watch* spWatch = nullptr;

bool fails(Call call)
{
    return spWatch != nullptr && spWatch->failsNow(call);
}

}  // namespace

const char* nameOf(Call call)
{
    static const char* const names[] = {"open",   "read",    "write",     "close", "stat",  "mmap",
                                        "munmap", "opendir", "readdir_r", "mkdir", "unlink"};
    return names[static_cast<std::size_t>(call)];
}

Watch::Watch()
{
    spWatch = this;
}

Watch::~Watch()
{
    spWatch = nullptr;
}

void Watch::fail(Call call, unsigned int occurrence, int error, bool forEver)
{
    mFails = true;
    mCall = call;
    mOccurrence = occurrence;
    mError = error;
    mForEver = forEver;
}

void Watch::before(Call call, unsigned int occurrence, std::function<void()> action)
{
    mActions[{call, occurrence}] = std::move(action);
}

unsigned int Watch::count(Call call) const
{
    const auto found = mCounts.find(call);
    return found != mCounts.end() ? found->second : 0;
}

bool Watch::failsNow(Call call)
{
    if (mInAction) return false;
    const unsigned int occurrence = ++mCounts[call];
    const auto action = mActions.find({call, occurrence});
    if (action != mActions.end()) {
        mInAction = true;
        action->second();
        mInAction = false;
    }
    if (!mFails || call != mCall || occurrence < mOccurrence || (occurrence > mOccurrence && !mForEver)) return false;
    mHit = true;
    errno = mError;
    return true;
}

}  // namespace faults

// The 64-bit names are those that the compiled code refers to; __open64_2 is open() as fortified code calls it.
extern "C" {

int __real_open64(const char* path, int flags, ...);
ssize_t __real_read(int file, void* buffer, size_t size);
ssize_t __real_write(int file, const void* data, size_t size);
int __real_close(int file);
int __real_stat64(const char* path, struct stat* status);
int __real_fstat64(int file, struct stat* status);
void* __real_mmap64(void* address, size_t length, int protection, int flags, int file, off_t offset);
int __real_munmap(void* address, size_t length);
DIR* __real_opendir(const char* path);
int __real_readdir64_r(DIR* stream, dirent* entry, dirent** result);
int __real_mkdir(const char* path, mode_t mode);
int __real_unlink(const char* path);

int __wrap_open64(const char* path, int flags, ...);
int __wrap___open64_2(const char* path, int flags);
ssize_t __wrap_read(int file, void* buffer, size_t size);
ssize_t __wrap_write(int file, const void* data, size_t size);
int __wrap_close(int file);
int __wrap_stat64(const char* path, struct stat* status);
int __wrap_fstat64(int file, struct stat* status);
void* __wrap_mmap64(void* address, size_t length, int protection, int flags, int file, off_t offset);
int __wrap_munmap(void* address, size_t length);
DIR* __wrap_opendir(const char* path);
int __wrap_readdir64_r(DIR* stream, dirent* entry, dirent** result);
int __wrap_mkdir(const char* path, mode_t mode);
int __wrap_unlink(const char* path);

int __wrap_open64(const char* path, int flags, ...)
{
    if (faults::fails(faults::Call::Open)) return -1;
    va_list values;
    va_start(values, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(values, mode_t) : 0;
    va_end(values);
    return __real_open64(path, flags, mode);
}

int __wrap___open64_2(const char* path, int flags)
{
    return faults::fails(faults::Call::Open) ? -1 : __real_open64(path, flags);
}

ssize_t __wrap_read(int file, void* buffer, size_t size)
{
    if (faults::fails(faults::Call::Read)) return -1;
    if (faults::spWatch != nullptr) faults::spWatch->noteRead(size);
    return __real_read(file, buffer, faults::spWatch != nullptr ? faults::spWatch->shortened(size) : size);
}

ssize_t __wrap_write(int file, const void* data, size_t size)
{
    if (faults::fails(faults::Call::Write)) return -1;
    return __real_write(file, data, faults::spWatch != nullptr ? faults::spWatch->shortened(size) : size);
}

int __wrap_close(int file)
{
    if (!faults::fails(faults::Call::Close)) return __real_close(file);
    const int error = errno;
    __real_close(file);
    errno = error;
    return -1;
}

int __wrap_stat64(const char* path, struct stat* status)
{
    return faults::fails(faults::Call::Stat) ? -1 : __real_stat64(path, status);
}

int __wrap_fstat64(int file, struct stat* status)
{
    return faults::fails(faults::Call::Stat) ? -1 : __real_fstat64(file, status);
}

void* __wrap_mmap64(void* address, size_t length, int protection, int flags, int file, off_t offset)
{
    if (faults::fails(faults::Call::Mmap)) return MAP_FAILED;
    if (faults::spWatch != nullptr && faults::spWatch->mappingAddress() != nullptr) {
        address = faults::spWatch->mappingAddress();
        flags |= MAP_FIXED_NOREPLACE;
    }
    return __real_mmap64(address, length, protection, flags, file, offset);
}

int __wrap_munmap(void* address, size_t length)
{
    if (faults::fails(faults::Call::Munmap)) return -1;
    if (faults::spWatch != nullptr) faults::spWatch->noteUnmap(length);
    return __real_munmap(address, length);
}

DIR* __wrap_opendir(const char* path)
{
    return faults::fails(faults::Call::Opendir) ? nullptr : __real_opendir(path);
}

int __wrap_readdir64_r(DIR* stream, dirent* entry, dirent** result)
{
    if (!faults::fails(faults::Call::Readdir)) return __real_readdir64_r(stream, entry, result);
    *result = nullptr;
    return errno;
}

int __wrap_mkdir(const char* path, mode_t mode)
{
    return faults::fails(faults::Call::Mkdir) ? -1 : __real_mkdir(path, mode);
}

int __wrap_unlink(const char* path)
{
    return faults::fails(faults::Call::Unlink) ? -1 : __real_unlink(path);
}

}  // extern "C"
