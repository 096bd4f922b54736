// SPDX-License-Identifier: Apache-2.0
#include "CallTable.h"

#include <cstring>
#include <utility>

#include "Message.h"
#include "OutOfMemory.h"
#include "Payload.h"

namespace quor {

std::uint64_t sCallLimit = std::uint64_t{120} * G_USEC_PER_SEC;

namespace {

int newCall(sd_bus* bus, const CallRequest& request, SdBusMessagePtr& call)
{
    const ServiceUri& uri = request.uri;
    const int result = obtain(call, [&](sd_bus_message** message) {
        return sd_bus_message_new_method_call(bus, message, uri.service.c_str(), uri.path.c_str(), jsonInterface,
                                              uri.method.c_str());
    });
    return result < 0 ? result : sd_bus_message_append_basic(call.get(), 's', request.payload.c_str());
}

std::string describe(const sd_bus_error& error)
{
    return error.message != nullptr ? error.message : error.name;
}

}  // namespace

void CallTable::start(const CallRequest& request)
{
    sd_bus* bus = mConnection.bus();
    if (bus == nullptr) return failLater(request.recipient, "not connected to the service bus");
    // Memory that runs out must do so before the call is sent.
    Calls made;
    Call* const call =
        made.emplace(0, std::make_unique<Call>(Call{this, request.recipient, request.subscribes, 0, {}, {}}))
            .first->second.get();
    mCalls.reserve(mCalls.size() + 1);
    SdBusMessagePtr message;
    int result = newCall(bus, request, message);
    if (result >= 0) {
        result = obtain(call->slot, [&](sd_bus_slot** slot) {
            return sd_bus_call_async(bus, slot, message.get(), onReply, call, sCallLimit);
        });
    }
    if (result < 0) return failLater(request.recipient, std::strerror(-result));
    std::uint64_t serial = 0;
    sd_bus_message_get_cookie(message.get(), &serial);
    call->serial = static_cast<std::uint32_t>(serial);
    Calls::node_type entry = made.extract(0);
    entry.key() = call->serial;
    mCalls.insert(std::move(entry));
}

int CallTable::onReply(sd_bus_message* reply, void* call, sd_bus_error*)
{
    auto& completed = *static_cast<Call*>(call);
    return systembus::guarded([&] {
        completed.table->complete(completed, reply);
        return 0;
    });
}

void CallTable::complete(Call& call, sd_bus_message* reply)
{
    const char* payload = nullptr;
    std::string failure;
    if (sd_bus_message_is_method_error(reply, nullptr) > 0) {
        failure = describe(*sd_bus_message_get_error(reply));
    } else if (sd_bus_message_read_basic(reply, 's', &payload) <= 0) {
        failure = "the reply holds no JSON text";
    } else if (isTooLarge(payload)) {
        failure = tooLarge("reply");
    }
    const std::string failurePayload = failure.empty() ? std::string() : errorPayload(failure);
    // The table is up to date before the callback runs, which may unregister the handle.
    const Recipient recipient = call.recipient;
    const char* sender = sd_bus_message_get_sender(reply);
    if (call.subscribes && failure.empty() && sender != nullptr) {
        keepSubscription(call, sender);
    } else {
        mCalls.erase(call.serial);
    }
    deliver(recipient, failure.empty() ? payload : failurePayload.c_str());
}

void CallTable::keepSubscription(Call& call, const std::string& owner)
{
    if (mOwners.count(owner) == 0) {
        mOwners.emplace(owner, std::make_unique<systembus::NameWatch>(mConnection.bus(), owner,
                                                                      [this, owner](const std::string& now) {
                                                                          if (now.empty()) dropOwner(owner);
                                                                      }));
    }
    call.owner = owner;  // last: a call without one is answered when memory runs out
    call.slot.reset();
}

void CallTable::dropOwner(const std::string& owner)
{
    for (auto call = mCalls.begin(); call != mCalls.end();) {
        call = call->second->owner == owner ? mCalls.erase(call) : std::next(call);
    }
    mOwners.erase(owner);
}

bool CallTable::handlePush(sd_bus_message* message)
{
    if (sd_bus_message_is_signal(message, jsonInterface, pushSignal) <= 0) return false;
    std::uint32_t serial = 0;
    const char* payload = nullptr;
    if (sd_bus_message_read(message, "us", &serial, &payload) <= 0) return true;
    const auto found = mCalls.find(serial);
    const char* sender = sd_bus_message_get_sender(message);
    // Only the service that answered the call may push to it.
    if (found == mCalls.end() || sender == nullptr || found->second->owner != sender) return true;
    const Recipient recipient = found->second->recipient;
    if (isTooLarge(payload)) {
        deliver(recipient, errorPayload(tooLarge("push")).c_str());
    } else {
        deliver(recipient, payload);
    }
    return true;
}

void CallTable::onBusLost()
{
    mOwners.clear();
    // One after the other: when memory runs out, the rest is answered at the next attempt.
    while (!mCalls.empty()) {
        const Call& call = *mCalls.begin()->second;
        if (call.owner.empty()) failLater(call.recipient, "the connection to the service bus was lost");
        mCalls.erase(mCalls.begin());
    }
}

void CallTable::deliver(const Recipient& recipient, const char* payload)
{
    if (recipient.callback == nullptr) return;
    QSMessage message;
    message.payload = payload;
    message.token = recipient.token;
    recipient.callback(mHandle, &message, recipient.userData);
}

void CallTable::failLater(const Recipient& recipient, const std::string& reason)
{
    mConnection.post([this, recipient, reason] { deliver(recipient, errorPayload(reason).c_str()); });
}

}  // namespace quor
