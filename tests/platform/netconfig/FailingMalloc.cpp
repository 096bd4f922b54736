// SPDX-License-Identifier: Apache-2.0
#include "FailingMalloc.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

#include "FailingAllocation.h"

void testsupport::failMalloc(long number)
{
    failAllocation(number);
}

#else

namespace {

std::atomic<long> sCallsLeft{0};

bool fails()
{
    if (sCallsLeft.load(std::memory_order_relaxed) <= 0 || sCallsLeft.fetch_sub(1) != 1) return false;
    errno = ENOMEM;
    return true;
}

}  // namespace

void testsupport::failMalloc(long number)
{
    sCallsLeft = number;
}

// For all libraries; not every C++ library's headers say so.
#pragma GCC visibility push(default)
extern "C" {

// The C library's own names of its functions.
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);

void* malloc(std::size_t size)
{
    return fails() ? nullptr : __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size)
{
    return fails() ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size)
{
    return fails() ? nullptr : __libc_realloc(block, size);
}

}  // extern "C"
#pragma GCC visibility pop

#endif
