// SPDX-License-Identifier: Apache-2.0
#include "KeptRecords.h"

#include <glib.h>
#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

constexpr std::size_t room = std::size_t{8} << 30;  // of addresses; memory is taken page by page
constexpr std::size_t largestRecord = 1024;
constexpr std::size_t header = 16;  // holds the size

struct Free {
    Free* next;
};

std::mutex sLock;
char* sBegin = nullptr;
char* sEnd = nullptr;
Free* sFree[largestRecord / header + 1] = {};
long sKept = 0;

std::size_t roundedUp(std::size_t size)
{
    return (size + header - 1) / header * header;
}

bool isRecord(const void* block)
{
    const auto* place = static_cast<const char*>(block);
    return sBegin != nullptr && place >= sBegin && place < sBegin + room;
}

}  // namespace

// The plug-in allocates records by the first of these and releases them by the second. It finds the program's.
#pragma GCC visibility push(default)
extern "C" {

gpointer g_try_malloc0(gsize size)
{
    if (size == 0 || size > largestRecord) return std::calloc(1, size);
    const std::lock_guard<std::mutex> lock(sLock);
    if (sBegin == nullptr) {
        void* const place =
            mmap(nullptr, room, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (place == MAP_FAILED) return nullptr;
        sBegin = sEnd = static_cast<char*>(place);
    }
    const std::size_t bytes = roundedUp(size);
    Free*& list = sFree[bytes / header];
    char* record = reinterpret_cast<char*>(list);
    if (record != nullptr) {
        list = list->next;
    } else {
        if (sEnd + header + bytes > sBegin + room) return nullptr;
        std::memcpy(sEnd, &bytes, sizeof bytes);
        record = sEnd + header;
        sEnd = record + bytes;
    }
    sKept += static_cast<long>(bytes);
    return std::memset(record, 0, bytes);
}

void g_free(gpointer block)
{
    if (!isRecord(block)) return std::free(block);
    const std::lock_guard<std::mutex> lock(sLock);
    std::size_t bytes = 0;
    std::memcpy(&bytes, static_cast<char*>(block) - header, sizeof bytes);
    sKept -= static_cast<long>(bytes);
    auto* const record = static_cast<Free*>(block);
    record->next = sFree[bytes / header];
    sFree[bytes / header] = record;
}

}  // extern "C"
#pragma GCC visibility pop

long endurance::keptRecordBytes()
{
    const std::lock_guard<std::mutex> lock(sLock);
    return sKept;
}
