// SPDX-License-Identifier: Apache-2.0
#include "ErrorQueueGuard.h"

#include <new>

namespace wfoal {

ErrorQueueGuard::ErrorQueueGuard()
{
    if (ERR_peek_error() != 0) moveAside();
}

ErrorQueueGuard::~ErrorQueueGuard()
{
    ERR_clear_error();
    for (std::size_t i = 0; i < mCount; ++i) {
        const Entry& entry = mEntries[i];
        ERR_new();
        ERR_set_debug(entry.file.c_str(), entry.line, entry.function.c_str());
        ERR_set_error(ERR_GET_LIB(entry.code), ERR_GET_REASON(entry.code), entry.data.empty() ? nullptr : "%s",
                      entry.data.c_str());
    }
}

void ErrorQueueGuard::moveAside()
{
    const char* file = nullptr;
    const char* function = nullptr;
    const char* data = nullptr;
    int flags = 0;
    while (mCount < mEntries.size()) {
        Entry& entry = mEntries[mCount];
        entry.code = ERR_get_error_all(&file, &entry.line, &function, &data, &flags);
        if (entry.code == 0) return;
        ++mCount;
        try {
            entry.file = file;
            entry.function = function;
            if ((flags & ERR_TXT_STRING) != 0) entry.data = data;
        } catch (const std::bad_alloc&) {
            continue;  // the code is what counts, the texts only explain
        }
    }
}

}  // namespace wfoal
