// SPDX-License-Identifier: Apache-2.0
//
// Memory of the whole process: allocations fail, and blocks that are not released show.
#include <glib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "Strike.h"

using faults::Function;

extern "C" {

// The C library's own names of its functions.
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);

}  // extern "C"

namespace {

bool noMemory(const void* caller)
{
    return faults::fails(Function::Malloc, caller, ENOMEM) || faults::fails(Function::GlibMemory, caller, ENOMEM);
}

void* counted(void* block)
{
    if (block != nullptr) faults::control().blocks.fetch_add(1, std::memory_order_relaxed);
    return block;
}

}  // namespace

extern "C" {

void* malloc(std::size_t size)
{
    return noMemory(CALLER) ? nullptr : counted(__libc_malloc(size));
}

void* calloc(std::size_t count, std::size_t size)
{
    return noMemory(CALLER) ? nullptr : counted(__libc_calloc(count, size));
}

void* realloc(void* block, std::size_t size)
{
    if (noMemory(CALLER)) return nullptr;
    void* const moved = __libc_realloc(block, size);
    if (block == nullptr) return counted(moved);
    if (size == 0 && moved == nullptr) faults::control().blocks.fetch_sub(1, std::memory_order_relaxed);
    return moved;
}

void* reallocarray(void* block, std::size_t count, std::size_t size)
{
    std::size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes) || noMemory(CALLER)) {
        errno = ENOMEM;
        return nullptr;
    }
    return block == nullptr ? counted(__libc_malloc(bytes)) : __libc_realloc(block, bytes);
}

void* memalign(std::size_t alignment, std::size_t size)
{
    return counted(__libc_memalign(alignment, size));
}

void* aligned_alloc(std::size_t alignment, std::size_t size)
{
    return counted(__libc_memalign(alignment, size));
}

int posix_memalign(void** place, std::size_t alignment, std::size_t size)
{
    void* const block = counted(__libc_memalign(alignment, size));
    if (block == nullptr) return ENOMEM;
    *place = block;
    return 0;
}

void free(void* block)
{
    if (block == nullptr) return;
    faults::control().blocks.fetch_sub(1, std::memory_order_relaxed);
    __libc_free(block);
}

// An assertion of the plug-in ends the process, as its interface says. GLib's report of it takes memory.
void g_assertion_message_expr(const char* domain, const char* file, int line, const char* function,
                              const char* expression)
{
    REAL(g_assertion_message_expr);
    faults::control().function = static_cast<int>(Function::None);
    dprintf(STDOUT_FILENO, "asserted %s %d %s\n", file, line, expression);
    real(domain, file, line, function, expression);
    std::abort();
}

gpointer g_try_malloc0(gsize size)
{
    REAL(g_try_malloc0);
    return faults::strikes(Function::GTryMalloc, CALLER) ? nullptr : real(size);
}

}  // extern "C"
