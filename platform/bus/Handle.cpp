// SPDX-License-Identifier: Apache-2.0
#include "Handle.h"

#include <cstring>
#include <iterator>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "OutOfMemory.h"

namespace {

using Handles = std::unordered_map<QSHandle*, std::shared_ptr<QSHandle>>;

std::mutex sHandlesLock;
// Not a static object: those are destroyed before the library's destructor function runs.
Handles* sHandles = nullptr;

void addToList(std::shared_ptr<QSHandle> handle)
{
    const std::lock_guard<std::mutex> lock(sHandlesLock);
    if (sHandles == nullptr) sHandles = new Handles;
    QSHandle* key = handle.get();
    (*sHandles)[key] = std::move(handle);
}

// Under the lock.
std::shared_ptr<QSHandle> findInList(QSHandle* handle)
{
    if (sHandles == nullptr) return nullptr;
    const auto found = sHandles->find(handle);
    return found != sHandles->end() ? found->second : nullptr;
}

std::shared_ptr<QSHandle> extractFromList(QSHandle* handle)
{
    const std::lock_guard<std::mutex> lock(sHandlesLock);
    std::shared_ptr<QSHandle> found = findInList(handle);
    if (found != nullptr) sHandles->erase(handle);
    return found;
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
    addToList(made);
    handle = made.get();
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
    const std::lock_guard<std::mutex> lock(sHandlesLock);
    return findInList(handle);
}

bool QSHandle::close(QSHandle* handle)
{
    const std::shared_ptr<QSHandle> extracted = extractFromList(handle);
    if (extracted == nullptr) return false;
    extracted->mConnection.close();
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
        // One whose callback runs on another thread is left alone: waiting for it might take forever.
        if (!entry.second->mConnection.tryClose()) addToList(entry.second);
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
        return systembus::guarded([&] { return static_cast<QSHandle*>(self)->mCalls.handlePush(message) ? 1 : 0; });
    };
    systembus::orBadAlloc(
        obtain(mFilter, [&](sd_bus_slot** slot) { return sd_bus_add_filter(bus, slot, onMessage, this); }));
    mService.onBusConnected(bus);
    mWatches.onBusConnected(bus);
    // Last, so that callers who see the name find the methods.
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
