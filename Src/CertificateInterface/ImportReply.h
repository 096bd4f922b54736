// SPDX-License-Identifier: Apache-2.0
//
// The certificate manager's answer, on its way from the event thread to the agent's thread, which waits for it. One
// import waits at a time: a newer one ends the wait of the older. A reply that nobody waits for any more, or a second
// one, is ignored: it names its import by number, so it can never reach into another one, nor into memory that is gone.
#ifndef WFOAL_IMPORTREPLY_H
#define WFOAL_IMPORTREPLY_H

#include <chrono>
#include <cstddef>

#include "handles/Json.h"
#include "quorservice.h"

namespace wfoal {

/// How long an import waits.
extern std::chrono::milliseconds importReplyTimeout;

/// The wait of one import. Made, used and destroyed on the agent's thread.
class ImportReply {
public:
    ImportReply();
    ~ImportReply();
    ImportReply(const ImportReply&) = delete;
    ImportReply& operator=(const ImportReply&) = delete;

    /// What the bus must hand to importCallRespHandler().
    void* context() const;
    /// Waits until the reply is there, a newer import begins, or the time is over. Null: no usable reply came.
    JsonPtr wait();
    /// False once a newer import has begun.
    bool isNewest() const;

private:
    friend void storeReply(std::size_t number, const char* payload);

    std::size_t mNumber;
    // Guarded by the mutex.
    bool mHasReply = false;
    JsonPtr mReply;
};

}  // namespace wfoal

/// Takes the certificate manager's reply; runs on the event thread. Always true.
bool importCallRespHandler(QSHandle* handle, QSMessage* message, void* context);

#endif
