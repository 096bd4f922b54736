// SPDX-License-Identifier: Apache-2.0
#include "FailingAllocation.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long> sAllocationsLeft{0};

}  // namespace

namespace testsupport {

void failAllocation(long number)
{
    sAllocationsLeft = number;
}

}  // namespace testsupport

void* operator new(std::size_t size)
{
    if (sAllocationsLeft.load() > 0 && sAllocationsLeft.fetch_sub(1) == 1) throw std::bad_alloc();
    void* block = std::malloc(size == 0 ? 1 : size);
    return block != nullptr ? block : throw std::bad_alloc();
}

void operator delete(void* block) noexcept
{
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept
{
    std::free(block);
}
