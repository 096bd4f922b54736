// SPDX-License-Identifier: Apache-2.0
//
// What the fault injector (Injector.cpp) is to do, and what it has done. Both sides map one file, whose name is in the
// environment variable FAULT_CONTROL: so a driver arms a fault in its own process or in one that it started.
#ifndef WFOAL_FAULTS_FAULTCONTROL_H
#define WFOAL_FAULTS_FAULTCONTROL_H

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>

namespace faults {

/// Functions that can fail. Calls that GLib makes, and those of the dynamic loader, are not counted, but for
/// GlibMemory, which is GLib's own malloc() and eventfd(), and for PthreadCreate. `operator new`, OpenSSL and json-c
/// allocate by malloc(). SdBus is every function of sd-bus that the platform uses and that can fail.
enum class Function : int {
    None,
    Malloc,
    GTryMalloc,
    Socket,
    Connect,
    Ioctl,
    Setsockopt,
    Bind,
    Send,
    Receive,
    Open,
    Read,
    Write,
    Fsync,
    Rename,
    Mkdir,
    Ftruncate,
    Fcntl,
    Poll,
    Mmap,
    Opendir,
    Popen,
    Spawn,
    PthreadCreate,
    SdBus,
    GlibMemory,
    Count
};

constexpr const char* functionNames[] = {
    "none", "malloc", "g_try_malloc", "socket", "connect", "ioctl",          "setsockopt", "bind",       "send",
    "recv", "open",   "read",         "write",  "fsync",   "rename",         "mkdir",      "ftruncate",  "fcntl",
    "poll", "mmap",   "opendir",      "popen",  "spawn",   "pthread_create", "sd_bus",     "glib-memory"};
static_assert(sizeof functionNames / sizeof *functionNames == static_cast<int>(Function::Count), "one name each");

struct Control {
    std::atomic<int> function;    // a Function; None disarms
    std::atomic<long> callsLeft;  // until the one that fails, which is 1
    std::atomic<bool> forEver;
    std::atomic<long> struck;  // calls that failed
    std::atomic<long> blocks;  // of memory that are allocated now
};

constexpr char controlVariable[] = "FAULT_CONTROL";

/// Null when the file cannot be made or mapped. The mapping stays for the life of the process.
inline Control* mapControl(const char* path)
{
    const int file = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0) return nullptr;
    void* place = MAP_FAILED;
    if (ftruncate(file, sizeof(Control)) == 0) {
        place = mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    }
    close(file);
    return place == MAP_FAILED ? nullptr : static_cast<Control*>(place);
}

}  // namespace faults

#endif
