// SPDX-License-Identifier: Apache-2.0
#include "ImportReply.h"

#include "Assertion.h"
#include "Log.h"

namespace wfoal {

gint64 importReplyTimeout = 120 * G_TIME_SPAN_SECOND;

namespace {

GMutex sImportCertOpMutex;
GCond sImportCertOpCond;

// All guarded by the mutex. 0 is no import.
std::size_t sLastNumber = 0;
std::size_t sWaitingNumber = 0;
bool sHasReply = false;
JsonPtr sReply;

class Lock {
public:
    Lock() { g_mutex_lock(&sImportCertOpMutex); }
    ~Lock() { g_mutex_unlock(&sImportCertOpMutex); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
};

}  // namespace

ImportReply::ImportReply()
{
    const Lock lock;
    mNumber = ++sLastNumber;
    sWaitingNumber = mNumber;
    sHasReply = false;
    sReply.reset();
}

ImportReply::~ImportReply()
{
    const Lock lock;
    if (sWaitingNumber == mNumber) sWaitingNumber = 0;
}

void* ImportReply::context() const
{
    return reinterpret_cast<void*>(mNumber);
}

JsonPtr ImportReply::wait()
{
    const Lock lock;
    const gint64 end = g_get_monotonic_time() + importReplyTimeout;
    while (!sHasReply && sWaitingNumber == mNumber) {
        if (!g_cond_wait_until(&sImportCertOpCond, &sImportCertOpMutex, end)) break;
    }
    if (sWaitingNumber != mNumber) return nullptr;
    sWaitingNumber = 0;
    return std::move(sReply);
}

static void storeReply(std::size_t number, const char* payload)
{
    JsonPtr reply(json_tokener_parse(payload));
    const Lock lock;
    if (number == 0 || number != sWaitingNumber || sHasReply) return;
    sReply = std::move(reply);
    sHasReply = true;
    g_cond_broadcast(&sImportCertOpCond);
}

}  // namespace wfoal

bool importCallRespHandler(QSHandle*, QSMessage* message, void* context)
{
    const char* payload = QSMessageGetPayload(message);
    WFOAL_ASSERT("Src/CertificateInterface", 382, payload);
    WFOAL_DEBUG("%s Recieved: %s", __func__, payload);
    wfoal::storeReply(reinterpret_cast<std::size_t>(context), payload);
    return true;
}
