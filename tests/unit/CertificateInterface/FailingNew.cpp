// SPDX-License-Identifier: Apache-2.0
#include "FailingNew.h"

#include <cstdlib>
#include <new>

std::size_t testsupport::failingNew = 0;

namespace {

void* allocate(std::size_t size)
{
    if (testsupport::failingNew != 0 && size == testsupport::failingNew) {
        testsupport::failingNew = 0;
        return nullptr;
    }
    return std::malloc(size);
}

}  // namespace

void* operator new(std::size_t size)
{
    void* const block = allocate(size);
    return block != nullptr ? block : throw std::bad_alloc();
}

// Every form, so that what one allocates another does not free.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}

void* operator new[](std::size_t size)
{
    return operator new(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}

void operator delete(void* block) noexcept
{
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept
{
    std::free(block);
}

void operator delete[](void* block) noexcept
{
    std::free(block);
}

void operator delete[](void* block, std::size_t) noexcept
{
    std::free(block);
}
