// SPDX-License-Identifier: Apache-2.0
//
// The client's calls: those without a reply yet, and those that asked for pushes. Used on the loop's thread.
#ifndef QUOR_CALLTABLE_H
#define QUOR_CALLTABLE_H

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "BusConnection.h"
#include "NameWatch.h"
#include "ServiceUri.h"
#include "quorservice.h"

namespace quor {

/// How long a call waits for its reply, in microseconds: 120 s. Tests make it shorter.
extern std::uint64_t sCallLimit;

/// Where replies and pushes go.
struct Recipient {
    QSReplyCallback callback = nullptr;  // may be null
    void* userData = nullptr;
    QSMessageToken token = 0;
};

struct CallRequest {
    ServiceUri uri;
    std::string payload;
    bool subscribes = false;
    Recipient recipient;
};

class CallTable {
public:
    CallTable(QSHandle* handle, systembus::BusConnection& connection) : mHandle(handle), mConnection(connection) {}
    CallTable(const CallTable&) = delete;
    CallTable& operator=(const CallTable&) = delete;

    /// Sends a call. A failure is delivered later as a reply, never from inside start().
    void start(const CallRequest& request);
    /// True when the message was a push.
    bool handlePush(sd_bus_message* message);
    /// Delivers a failure to each pending call, and removes all subscriptions.
    void onBusLost();

private:
    struct Call {
        CallTable* table;
        Recipient recipient;
        bool subscribes;
        std::uint32_t serial = 0;  // of the call on the bus; pushes name it
        std::string owner;         // the service's unique name, once it has answered
        SdBusSlotPtr slot;
    };
    using Calls = std::unordered_map<std::uint32_t, std::unique_ptr<Call>>;

    static int onReply(sd_bus_message* reply, void* call, sd_bus_error* error);
    void complete(Call& call, sd_bus_message* reply);
    void keepSubscription(Call& call, const std::string& owner);
    void dropOwner(const std::string& owner);
    void deliver(const Recipient& recipient, const char* payload);
    void failLater(const Recipient& recipient, const std::string& reason);

    QSHandle* const mHandle;
    systembus::BusConnection& mConnection;
    Calls mCalls;                                                                    // by serial
    std::unordered_map<std::string, std::unique_ptr<systembus::NameWatch>> mOwners;  // of subscriptions
};

}  // namespace quor

#endif
