// SPDX-License-Identifier: Apache-2.0
#include "ImportReply.h"

#include <pthread.h>

#include <type_traits>

#include "Assertion.h"
#include "Log.h"
#include "handles/JsonParser.h"

namespace wfoal {

std::chrono::milliseconds importReplyTimeout = std::chrono::minutes(2);

namespace {

struct MonotonicCondition {
    MonotonicCondition()
    {
        pthread_condattr_t attributes;
        pthread_condattr_init(&attributes);
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        pthread_cond_init(&condition, &attributes);
        pthread_condattr_destroy(&attributes);
    }
    pthread_cond_t condition{};
};

// The process may exit while an import waits, so none of these has a destructor. Destroying a condition, for one, waits
// for those who wait for it, and a std::mutex has a destructor in some libraries.
pthread_mutex_t sImportCertOpMutex = PTHREAD_MUTEX_INITIALIZER;
__attribute__((init_priority(201))) MonotonicCondition sImportCertOpCond;  // before the load hook, not with the reader
static_assert(std::is_trivially_destructible_v<MonotonicCondition>);

class Lock {
public:
    Lock() { pthread_mutex_lock(&sImportCertOpMutex); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    ~Lock() { pthread_mutex_unlock(&sImportCertOpMutex); }
};

// Guarded by the mutex.
std::size_t sLastNumber = 0;
ImportReply* spWaiting = nullptr;

timespec monotonicTimeAfter(std::chrono::milliseconds delay)
{
    using std::chrono::nanoseconds;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const nanoseconds time = std::chrono::seconds(now.tv_sec) + nanoseconds(now.tv_nsec) + delay;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    return {static_cast<time_t>(seconds.count()), static_cast<long>((time - seconds).count())};
}

}  // namespace

ImportReply::ImportReply()
{
    const Lock lock;
    mNumber = ++sLastNumber;
    spWaiting = this;
    pthread_cond_broadcast(&sImportCertOpCond.condition);
}

ImportReply::~ImportReply()
{
    const Lock lock;
    if (spWaiting == this) spWaiting = nullptr;
}

void* ImportReply::context() const
{
    return reinterpret_cast<void*>(mNumber);
}

JsonPtr ImportReply::wait()
{
    const timespec end = monotonicTimeAfter(importReplyTimeout);
    const Lock lock;
    int error = 0;
    while (error == 0 && !mHasReply && spWaiting == this) {
        error = pthread_cond_timedwait(&sImportCertOpCond.condition, &sImportCertOpMutex, &end);
    }
    if (spWaiting != this) return nullptr;
    spWaiting = nullptr;
    return std::move(mReply);
}

bool ImportReply::isNewest() const
{
    const Lock lock;
    return mNumber == sLastNumber;
}

void storeReply(std::size_t number, const char* payload)
{
    JsonPtr reply = jsonparser::parse(payload);
    const Lock lock;
    if (spWaiting == nullptr || spWaiting->mNumber != number || spWaiting->mHasReply) return;
    spWaiting->mReply = std::move(reply);
    spWaiting->mHasReply = true;
    pthread_cond_broadcast(&sImportCertOpCond.condition);
}

}  // namespace wfoal

bool importCallRespHandler(QSHandle*, QSMessage* message, void* context)
{
    const char* payload = QSMessageGetPayload(message);
    // Text and line number are fixed.
    WFOAL_ASSERT("Src/CertificateInterface", 382, payload);
    WFOAL_DEBUG("%s Recieved: %s", __func__, payload);
    wfoal::storeReply(reinterpret_cast<std::size_t>(context), payload);
    return true;
}
