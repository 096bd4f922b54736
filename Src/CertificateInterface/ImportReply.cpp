// SPDX-License-Identifier: Apache-2.0
#include "ImportReply.h"

#include <condition_variable>
#include <mutex>

#include "Assertion.h"
#include "Log.h"

namespace wfoal {

std::chrono::milliseconds importReplyTimeout = std::chrono::minutes(2);

namespace {

std::mutex sImportCertOpMutex;
std::condition_variable sImportCertOpCond;

// All guarded by the mutex. 0 is no import.
std::size_t sLastNumber = 0;
std::size_t sWaitingNumber = 0;
bool sHasReply = false;
JsonPtr sReply;

}  // namespace

ImportReply::ImportReply()
{
    const std::lock_guard<std::mutex> lock(sImportCertOpMutex);
    mNumber = ++sLastNumber;
    sWaitingNumber = mNumber;
    sHasReply = false;
    sReply.reset();
}

ImportReply::~ImportReply()
{
    const std::lock_guard<std::mutex> lock(sImportCertOpMutex);
    if (sWaitingNumber == mNumber) sWaitingNumber = 0;
}

void* ImportReply::context() const
{
    return reinterpret_cast<void*>(mNumber);
}

JsonPtr ImportReply::wait()
{
    std::unique_lock<std::mutex> lock(sImportCertOpMutex);
    sImportCertOpCond.wait_for(lock, importReplyTimeout, [this] { return sHasReply || sWaitingNumber != mNumber; });
    if (sWaitingNumber != mNumber) return nullptr;
    sWaitingNumber = 0;
    return std::move(sReply);
}

static void storeReply(std::size_t number, const char* payload)
{
    JsonPtr reply(json_tokener_parse(payload));
    const std::lock_guard<std::mutex> lock(sImportCertOpMutex);
    if (number == 0 || number != sWaitingNumber || sHasReply) return;
    sReply = std::move(reply);
    sHasReply = true;
    sImportCertOpCond.notify_all();
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
