// SPDX-License-Identifier: Apache-2.0
//
// A service's own name on the bus. After a restart of the bus it is requested again; while it belongs to somebody else,
// or is refused, the connection is kept and the service waits. Used on the loop's thread.
#ifndef QUOR_NAMECLAIM_H
#define QUOR_NAMECLAIM_H

#include <cstdint>
#include <memory>
#include <string>

#include "BusConnection.h"
#include "NameWatch.h"

namespace quor {

class NameClaim {
public:
    /// An empty name claims nothing.
    NameClaim(std::string name, hostbus::BusConnection& connection) : mName(std::move(name)), mConnection(connection) {}
    NameClaim(const NameClaim&) = delete;
    NameClaim& operator=(const NameClaim&) = delete;

    /// Requests the name and waits for the answer, before the connection is attached. 0, or a negative errno value:
    /// -EEXIST when it belongs to somebody else.
    int requestAndWait();

    /// Requests the name on a new bus object.
    void onBusConnected();
    void onBusLost();

private:
    void request();
    void onAnswer(sd_bus_message* reply);
    void waitUntilFree();
    void askLater(const char* reason);

    const std::string mName;
    hostbus::BusConnection& mConnection;
    bool mIsOwned = false;    // on the present bus object
    bool mIsWaiting = false;  // and the log says so
    std::int64_t mPause = 0;
    SdBusSlotPtr mRequest;
    std::unique_ptr<hostbus::NameWatch> mOwner;
};

}  // namespace quor

#endif
