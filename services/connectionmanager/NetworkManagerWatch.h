// SPDX-License-Identifier: Apache-2.0
//
// NetworkManager's verdict on the way to the internet, for as long as it owns its name on the bus.
#ifndef CONMAN_NETWORKMANAGERWATCH_H
#define CONMAN_NETWORKMANAGERWATCH_H

#include <functional>
#include <memory>
#include <string>

#include "BusConnection.h"
#include "NameWatch.h"
#include "SignalMatch.h"
#include "Status.h"

namespace conman {

class NetworkManagerWatch final : public std::enable_shared_from_this<NetworkManagerWatch>,
                                  private hostbus::BusListener {
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
    void ask();
    void found(Connectivity connectivity);
    static int onAnswer(sd_bus_message* reply, void* self, sd_bus_error* error);

    std::function<void()> mOnChange;
    hostbus::BusConnection mConnection;
    Connectivity mConnectivity = Connectivity::NoManager;
    std::unique_ptr<hostbus::NameWatch> mName;
    std::unique_ptr<hostbus::SignalMatch> mMatch;
    SdBusSlotPtr mQuestion;
};

}  // namespace conman

#endif
