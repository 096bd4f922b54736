// SPDX-License-Identifier: Apache-2.0
//
// NetworkManager's connectivity check, for as long as it owns its name on the bus.
#ifndef CONNECTIONMANAGER_NETWORKMANAGERWATCH_H
#define CONNECTIONMANAGER_NETWORKMANAGERWATCH_H

#include <functional>
#include <memory>
#include <string>

#include "BusConnection.h"
#include "NameWatch.h"
#include "SignalMatch.h"
#include "Status.h"

namespace connectionmanager {

class NetworkManagerWatch final : public std::enable_shared_from_this<NetworkManagerWatch>,
                                  private systembus::BusListener {
public:
    /// `onChange` is called on the context's thread.
    explicit NetworkManagerWatch(std::function<void()> onChange);

    void start(GMainContext* context);
    void stop() { mConnection.close(); }
    Connectivity connectivity() const { return mConnectivity; }

private:
    void onBusConnected(sd_bus* bus) override;
    void onBusLost() override;
    void onOwner(const std::string& owner);
    void queryConnectivity();
    void setConnectivity(Connectivity connectivity);
    static int onAnswer(sd_bus_message* reply, void* self, sd_bus_error* error);

    std::function<void()> mOnChange;
    systembus::BusConnection mConnection;
    Connectivity mConnectivity = Connectivity::NotRunning;
    std::unique_ptr<systembus::NameWatch> mName;
    std::unique_ptr<systembus::SignalMatch> mMatch;
    SdBusSlotPtr mQuery;
};

}  // namespace connectionmanager

#endif
