// SPDX-License-Identifier: Apache-2.0
//
// Calls of the C library that go to the kernel. The names with 64 are those that compiled code refers to; __open64_2 is
// open() as fortified code calls it.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "Strike.h"

using faults::fails;
using faults::Function;

extern "C" {

int __open64_2(const char* path, int flags);
int __openat64_2(int folder, const char* path, int flags);

int socket(int domain, int type, int protocol) noexcept
{
    REAL(socket);
    return fails(Function::Socket, CALLER, EMFILE) ? -1 : real(domain, type, protocol);
}

int connect(int file, const sockaddr* address, socklen_t length)
{
    REAL(connect);
    return fails(Function::Connect, CALLER, ECONNREFUSED) ? -1 : real(file, address, length);
}

int ioctl(int file, unsigned long request, ...) noexcept
{
    REAL(ioctl);
    va_list values;
    va_start(values, request);
    void* const value = va_arg(values, void*);
    va_end(values);
    return fails(Function::Ioctl, CALLER, EIO) ? -1 : real(file, request, value);
}

int setsockopt(int file, int level, int option, const void* value, socklen_t length) noexcept
{
    REAL(setsockopt);
    return fails(Function::Setsockopt, CALLER, ENOBUFS) ? -1 : real(file, level, option, value, length);
}

int bind(int file, const sockaddr* address, socklen_t length) noexcept
{
    REAL(bind);
    return fails(Function::Bind, CALLER, ENOMEM) ? -1 : real(file, address, length);
}

ssize_t send(int file, const void* data, size_t size, int flags)
{
    REAL(send);
    return fails(Function::Send, CALLER, ENOBUFS) ? -1 : real(file, data, size, flags);
}

ssize_t sendto(int file, const void* data, size_t size, int flags, const sockaddr* address, socklen_t length)
{
    REAL(sendto);
    return fails(Function::Send, CALLER, ENOBUFS) ? -1 : real(file, data, size, flags, address, length);
}

ssize_t sendmsg(int file, const msghdr* message, int flags)
{
    REAL(sendmsg);
    return fails(Function::Send, CALLER, ENOBUFS) ? -1 : real(file, message, flags);
}

ssize_t recv(int file, void* data, size_t size, int flags)
{
    REAL(recv);
    return fails(Function::Receive, CALLER, ENOMEM) ? -1 : real(file, data, size, flags);
}

ssize_t recvmsg(int file, msghdr* message, int flags)
{
    REAL(recvmsg);
    return fails(Function::Receive, CALLER, ENOMEM) ? -1 : real(file, message, flags);
}

int open(const char* path, int flags, ...)
{
    REAL(open);
    va_list values;
    va_start(values, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(values, mode_t) : 0;
    va_end(values);
    return fails(Function::Open, CALLER, EMFILE) ? -1 : real(path, flags, mode);
}

int open64(const char* path, int flags, ...)
{
    REAL(open64);
    va_list values;
    va_start(values, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(values, mode_t) : 0;
    va_end(values);
    return fails(Function::Open, CALLER, EMFILE) ? -1 : real(path, flags, mode);
}

int openat64(int folder, const char* path, int flags, ...)
{
    REAL(openat64);
    va_list values;
    va_start(values, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(values, mode_t) : 0;
    va_end(values);
    return fails(Function::Open, CALLER, EMFILE) ? -1 : real(folder, path, flags, mode);
}

int __open64_2(const char* path, int flags)
{
    REAL(__open64_2);
    return fails(Function::Open, CALLER, EMFILE) ? -1 : real(path, flags);
}

int __openat64_2(int folder, const char* path, int flags)
{
    REAL(__openat64_2);
    return fails(Function::Open, CALLER, EMFILE) ? -1 : real(folder, path, flags);
}

FILE* fopen(const char* path, const char* mode)
{
    REAL(fopen);
    return fails(Function::Open, CALLER, EMFILE) ? nullptr : real(path, mode);
}

FILE* fopen64(const char* path, const char* mode)
{
    REAL(fopen64);
    return fails(Function::Open, CALLER, EMFILE) ? nullptr : real(path, mode);
}

ssize_t read(int file, void* data, size_t size)
{
    REAL(read);
    return fails(Function::Read, CALLER, EIO) ? -1 : real(file, data, size);
}

ssize_t pread64(int file, void* data, size_t size, off64_t offset)
{
    REAL(pread64);
    return fails(Function::Read, CALLER, EIO) ? -1 : real(file, data, size, offset);
}

ssize_t write(int file, const void* data, size_t size)
{
    REAL(write);
    return fails(Function::Write, CALLER, ENOSPC) ? -1 : real(file, data, size);
}

ssize_t pwrite64(int file, const void* data, size_t size, off64_t offset)
{
    REAL(pwrite64);
    return fails(Function::Write, CALLER, ENOSPC) ? -1 : real(file, data, size, offset);
}

int fsync(int file)
{
    REAL(fsync);
    return fails(Function::Fsync, CALLER, EIO) ? -1 : real(file);
}

int rename(const char* from, const char* to) noexcept
{
    REAL(rename);
    return fails(Function::Rename, CALLER, EIO) ? -1 : real(from, to);
}

int renameat(int fromFolder, const char* from, int toFolder, const char* to) noexcept
{
    REAL(renameat);
    return fails(Function::Rename, CALLER, EIO) ? -1 : real(fromFolder, from, toFolder, to);
}

int mkdir(const char* path, mode_t mode) noexcept
{
    REAL(mkdir);
    return fails(Function::Mkdir, CALLER, ENOSPC) ? -1 : real(path, mode);
}

int ftruncate64(int file, off64_t length) noexcept
{
    REAL(ftruncate64);
    return fails(Function::Ftruncate, CALLER, EIO) ? -1 : real(file, length);
}

int fcntl64(int file, int command, ...)
{
    REAL(fcntl64);
    va_list values;
    va_start(values, command);
    void* const value = va_arg(values, void*);
    va_end(values);
    return fails(Function::Fcntl, CALLER, ENOLCK) ? -1 : real(file, command, value);
}

int poll(pollfd* files, nfds_t count, int timeout)
{
    REAL(poll);
    return fails(Function::Poll, CALLER, ENOMEM) ? -1 : real(files, count, timeout);
}

void* mmap64(void* address, size_t length, int protection, int flags, int file, off64_t offset) noexcept
{
    REAL(mmap64);
    return fails(Function::Mmap, CALLER, ENOMEM) ? MAP_FAILED : real(address, length, protection, flags, file, offset);
}

DIR* opendir(const char* path)
{
    REAL(opendir);
    return fails(Function::Opendir, CALLER, EMFILE) ? nullptr : real(path);
}

FILE* popen(const char* command, const char* mode)
{
    REAL(popen);
    return fails(Function::Popen, CALLER, ENOMEM) ? nullptr : real(command, mode);
}

pid_t fork() noexcept
{
    REAL(fork);
    return fails(Function::Spawn, CALLER, EAGAIN) ? -1 : real();
}

int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const arguments[], char* const environment[])
{
    REAL(posix_spawn);
    return faults::strikes(Function::Spawn, CALLER) ? EAGAIN
                                                    : real(pid, path, actions, attributes, arguments, environment);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* value) noexcept
{
    REAL(pthread_create);
    return faults::strikes(Function::PthreadCreate, CALLER) ? EAGAIN : real(thread, attributes, start, value);
}

int eventfd(unsigned int count, int flags) noexcept
{
    REAL(eventfd);
    const bool isStruck = fails(Function::Open, CALLER, EMFILE) || fails(Function::GlibMemory, CALLER, EMFILE);
    return isStruck ? -1 : real(count, flags);
}

}  // extern "C"
