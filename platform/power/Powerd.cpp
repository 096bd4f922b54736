// SPDX-License-Identifier: Apache-2.0
//
// The power daemon's client on logind: the one client of this process.
#include <memory>
#include <mutex>
#include <new>

#include "PowerClient.h"
#include "powerd.h"

namespace {

using powerd::Callbacks;
using powerd::PowerClient;

std::mutex sClientLock;
// Not a static object: those are destroyed before the library's destructor function runs.
std::shared_ptr<PowerClient>* sClient = nullptr;

std::shared_ptr<PowerClient> client()
{
    const std::lock_guard<std::mutex> lock(sClientLock);
    return sClient != nullptr ? *sClient : nullptr;
}

std::shared_ptr<PowerClient> extractClient()
{
    const std::lock_guard<std::mutex> lock(sClientLock);
    if (sClient == nullptr) return nullptr;
    std::shared_ptr<PowerClient> taken = std::move(*sClient);
    delete sClient;
    sClient = nullptr;
    return taken;
}

// No exception leaves the library.
template <typename Operation>
bool perform(Operation operation)
{
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool setCallback(std::atomic<PowerdCallback> Callbacks::*which, PowerdCallback callback)
{
    const auto present = client();
    if (present == nullptr) return false;
    present->callbacks().*which = callback;
    return true;
}

// Ends a client that was not deinitialised. One whose callback runs on another thread is left alone.
__attribute__((destructor)) void releaseClient()
{
    const auto present = client();
    if (present != nullptr && present->stop(false)) extractClient();
}

}  // namespace

extern "C" bool PowerdGmainAttach(_GMainLoop* loop)
{
    if (loop == nullptr) return false;
    return perform([loop] {
        const std::lock_guard<std::mutex> lock(sClientLock);
        if (sClient != nullptr) return false;
        sClient = new std::shared_ptr<PowerClient>(std::make_shared<PowerClient>(loop));
        return true;
    });
}

extern "C" bool PowerdClientInit(const char* name)
{
    const auto present = client();
    return present != nullptr && name != nullptr && perform([&] { return present->start(name); });
}

extern "C" bool PowerdClientDeinit()
{
    if (const auto present = extractClient()) present->stop();
    return true;
}

extern "C" bool PowerdResumeRegister(PowerdCallback callback)
{
    return setCallback(&Callbacks::resume, callback);
}

extern "C" bool PowerdSuspendedRegister(PowerdCallback callback)
{
    return setCallback(&Callbacks::suspended, callback);
}

extern "C" bool PowerdPrepareSuspendRegister(PowerdCallback callback)
{
    if (!setCallback(&Callbacks::prepareSuspend, callback)) return false;
    return perform([] {
        if (const auto present = client()) present->offerPendingSuspend();
        return true;
    });
}

extern "C" bool PowerdPrepareSuspendAck(bool agreed)
{
    const auto present = client();
    if (present == nullptr) return false;
    present->acknowledge(agreed);
    return true;
}
