// SPDX-License-Identifier: Apache-2.0
#include "Handle.h"

#include <cstring>
#include <iterator>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace {

using Handles = std::unordered_map<QSHandle*, std::shared_ptr<QSHandle>>;

std::mutex sHandlesLock;
// Not a static object: those are destroyed before the library's own clean-up runs.
Handles* sHandles = nullptr;

void enterInList(std::shared_ptr<QSHandle> handle)
{
    const std::lock_guard<std::mutex> lock(sHandlesLock);
    if (sHandles == nullptr) sHandles = new Handles;
    QSHandle* key = handle.get();
    (*sHandles)[key] = std::move(handle);
}

std::shared_ptr<QSHandle> lookUp(QSHandle* handle, bool take)
{
    const std::lock_guard<std::mutex> lock(sHandlesLock);
    if (sHandles == nullptr) return nullptr;
    const auto found = sHandles->find(handle);
    if (found == sHandles->end()) return nullptr;
    std::shared_ptr<QSHandle> result = found->second;
    if (take) sHandles->erase(found);
    return result;
}

}  // namespace

QSHandle::QSHandle(const char* name)
    : mName(name != nullptr ? name : ""),
      mConnection(*this),
      mClaim(mName, mConnection),
      mCalls(this, mConnection),
      mWatches(this),
      mService(this, mConnection)
{
}

quor::Failure QSHandle::open(const char* name, QSHandle*& handle)
{
    if (name != nullptr && sd_bus_service_name_is_valid(name) <= 0) {
        return QUOR_FAILURE(QS_ERROR_BAD_ARGUMENT, "the name is no bus name");
    }
    std::shared_ptr<QSHandle> made(new QSHandle(name));
    if (quor::Failure failure = made->connect()) return failure;
    handle = made.get();
    enterInList(std::move(made));
    return {};
}

quor::Failure QSHandle::connect()
{
    int result = mConnection.open();
    if (result < 0) {
        return QUOR_FAILURE(QS_ERROR_NOT_AVAILABLE,
                            std::string("the service bus cannot be reached: ") + strerror(-result));
    }
    result = mClaim.requestAndWait();
    if (result == -EEXIST) return QUOR_FAILURE(result, "the name " + mName + " is taken");
    if (result < 0) return QUOR_FAILURE(result, "the name " + mName + " cannot be had: " + strerror(-result));
    return {};
}

std::shared_ptr<QSHandle> QSHandle::find(QSHandle* handle)
{
    return lookUp(handle, false);
}

bool QSHandle::close(QSHandle* handle)
{
    const std::shared_ptr<QSHandle> taken = lookUp(handle, true);
    if (taken == nullptr) return false;
    taken->mConnection.close();
    return true;
}

void QSHandle::closeAll()
{
    std::unique_ptr<Handles> handles;
    {
        const std::lock_guard<std::mutex> lock(sHandlesLock);
        handles.reset(sHandles);
        sHandles = nullptr;
    }
    if (handles == nullptr) return;
    for (auto& entry : *handles) {
        // One that is at work on another thread is left alone: waiting for it might take for ever.
        if (!entry.second->mConnection.tryClose()) enterInList(entry.second);
    }
}

quor::Failure QSHandle::attach(GMainLoop* loop)
{
    if (mConnection.isAttached()) return QUOR_FAILURE(-EALREADY, "a main loop is attached already");
    mLoop.reset(g_main_loop_ref(loop));
    mConnection.attach(g_main_loop_get_context(loop), shared_from_this());
    return {};
}

void QSHandle::onBusConnected(sd_bus* bus)
{
    const auto onMessage = [](sd_bus_message* message, void* self, sd_bus_error*) -> int {
        return static_cast<QSHandle*>(self)->mCalls.takePush(message);
    };
    sd_bus_slot* slot = nullptr;
    if (sd_bus_add_filter(bus, &slot, onMessage, this) >= 0) mFilter.reset(slot);
    mService.onBusConnected(bus);
    mWatches.onBusConnected(bus);
    // On a new bus: once our methods are there, callers may find them.
    mClaim.onBusConnected();
}

void QSHandle::onBusLost()
{
    mFilter.reset();
    mClaim.onBusLost();
    mService.onBusLost();
    mCalls.onBusLost();
    mWatches.onBusLost();
}
