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
// Not a static object: those are destroyed before the library's own clean-up runs.
std::shared_ptr<PowerClient>* sClient = nullptr;

std::shared_ptr<PowerClient> client()
{
    const std::lock_guard<std::mutex> lock(sClientLock);
    return sClient != nullptr ? *sClient : nullptr;
}

std::shared_ptr<PowerClient> takeClient()
{
    const std::lock_guard<std::mutex> lock(sClientLock);
    if (sClient == nullptr) return nullptr;
    std::shared_ptr<PowerClient> taken = std::move(*sClient);
    delete sClient;
    sClient = nullptr;
    return taken;
}

bool setCallback(std::atomic<PowerdCallback> Callbacks::*which, PowerdCallback callback)
{
    const auto present = client();
    if (present == nullptr) return false;
    present->callbacks().*which = callback;
    return true;
}

// A client that was not deinitialised ends with the library; one that is at work on another thread is left alone.
__attribute__((destructor)) void releaseClient()
{
    const auto present = client();
    if (present != nullptr && present->stop(false)) takeClient();
}

}  // namespace

extern "C" bool PowerdGmainAttach(_GMainLoop* loop)
{
    if (loop == nullptr) return false;
    const std::lock_guard<std::mutex> lock(sClientLock);
    if (sClient != nullptr) return false;
    sClient = new std::shared_ptr<PowerClient>(std::make_shared<PowerClient>(loop));
    return true;
}

extern "C" bool PowerdClientInit(const char* name)
{
    const auto present = client();
    return present != nullptr && name != nullptr && present->start(name);
}

extern "C" bool PowerdClientDeinit()
{
    if (const auto present = takeClient()) present->stop();
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
    if (const auto present = client()) present->askBelated();
    return true;
}

extern "C" bool PowerdPrepareSuspendAck(bool agreed)
{
    const auto present = client();
    if (present == nullptr) return false;
    present->acknowledge(agreed);
    return true;
}
