// SPDX-License-Identifier: Apache-2.0
//
// A service's own name on the bus. It is requested again after a restart of the bus. While another program owns it, or
// the bus refuses it, the service stays connected and waits. Used on the loop's thread.
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
    NameClaim(std::string name, systembus::BusConnection& connection) : mName(std::move(name)), mConnection(connection)
    {
    }
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
    void retryLater(const char* reason);

    const std::string mName;
    systembus::BusConnection& mConnection;
    bool mIsOwned = false;    // on the current bus object
    bool mIsWaiting = false;  // the log says so
    std::int64_t mPause = 0;
    SdBusSlotPtr mRequest;
    std::unique_ptr<systembus::NameWatch> mOwner;
};

}  // namespace quor

#endif
