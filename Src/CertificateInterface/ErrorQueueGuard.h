// SPDX-License-Identifier: Apache-2.0
//
// The error queue of OpenSSL belongs to the calling thread, and the agent reads it after its own calls
// (SSL_get_error()).
#ifndef WFOAL_ERRORQUEUEGUARD_H
#define WFOAL_ERRORQUEUEGUARD_H

#include <openssl/err.h>

#include <array>
#include <string>

namespace wfoal {

/// While it lives, the thread's error queue starts out empty. Afterwards the queue holds what it held before, and
/// nothing of what was raised meanwhile. The errors are moved aside and not only marked, because parts of OpenSSL clear
/// the whole queue. Only marks of ERR_set_mark() do not survive.
class ErrorQueueGuard {
public:
    ErrorQueueGuard();
    ~ErrorQueueGuard();
    ErrorQueueGuard(const ErrorQueueGuard&) = delete;
    ErrorQueueGuard& operator=(const ErrorQueueGuard&) = delete;

private:
    struct Entry {
        unsigned long code = 0;
        int line = 0;
        std::string file;
        std::string function;
        std::string data;
    };

    void moveAside();

    std::array<Entry, ERR_NUM_ERRORS> mEntries;
    std::size_t mCount = 0;
};

}  // namespace wfoal

#endif
