// SPDX-License-Identifier: Apache-2.0
#include "AllocationFaults.h"

#include <link.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t number, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
}

namespace faults {

namespace {

thread_local bool sArmed = false;
thread_local int sLeft = 0;  // until the next that fails
thread_local bool sForEver = false;
thread_local bool sSparesGlib = true;
thread_local bool sStruck = false;

struct Range {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
} sGlib;

/// Where GLib is loaded.
int noteGlib(dl_phdr_info* info, std::size_t, void*)
{
    if (std::strstr(info->dlpi_name, "libglib") == nullptr) return 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        if (info->dlpi_phdr[i].p_type != PT_LOAD || (info->dlpi_phdr[i].p_flags & PF_X) == 0) continue;
        sGlib.begin = info->dlpi_addr + info->dlpi_phdr[i].p_vaddr;
        sGlib.end = sGlib.begin + info->dlpi_phdr[i].p_memsz;
    }
    return 1;
}

bool isGlib(const void* caller)
{
    const auto address = reinterpret_cast<std::uintptr_t>(caller);
    return address >= sGlib.begin && address < sGlib.end;
}

bool strikes(const void* caller)
{
    if (!sArmed || (sSparesGlib && isGlib(caller))) return false;
    if (sLeft > 0) --sLeft;
    if (sLeft > 0 || (sStruck && !sForEver)) return false;
    sStruck = true;
    errno = ENOMEM;
    return true;
}

}  // namespace

AllocationFault::AllocationFault(int nth, bool forEver, Glib glib)
{
    if (sGlib.end == 0) dl_iterate_phdr(noteGlib, nullptr);
    sLeft = nth;
    sForEver = forEver;
    sSparesGlib = glib == Glib::Spared;
    sStruck = false;
    sArmed = true;
}

AllocationFault::~AllocationFault()
{
    sArmed = false;
}

bool AllocationFault::hasStruck() const
{
    return sStruck;
}

NoFault::NoFault() : mWasArmed(sArmed)
{
    sArmed = false;
}

NoFault::~NoFault()
{
    sArmed = mWasArmed;
}

}  // namespace faults

// For all libraries; not every C++ library's headers say so.
#pragma GCC visibility push(default)
extern "C" {

void* malloc(std::size_t size)
{
    return faults::strikes(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}

void* calloc(std::size_t number, std::size_t size)
{
    return faults::strikes(__builtin_return_address(0)) ? nullptr : __libc_calloc(number, size);
}

void* realloc(void* block, std::size_t size)
{
    return faults::strikes(__builtin_return_address(0)) ? nullptr : __libc_realloc(block, size);
}

}  // extern "C"
#pragma GCC visibility pop
