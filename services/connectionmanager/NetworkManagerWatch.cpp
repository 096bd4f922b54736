// SPDX-License-Identifier: Apache-2.0
#include "NetworkManagerWatch.h"

#include <utility>

#include "OutOfMemory.h"

namespace connectionmanager {

namespace {

constexpr char managerName[] = "org.freedesktop.NetworkManager";
constexpr char managerPath[] = "/org/freedesktop/NetworkManager";
constexpr char propertiesInterface[] = "org.freedesktop.DBus.Properties";

}  // namespace

NetworkManagerWatch::NetworkManagerWatch(std::function<void()> onChange)
    : mOnChange(std::move(onChange)), mConnection(*this)
{
}

void NetworkManagerWatch::start(GMainContext* context)
{
    mConnection.attach(context, shared_from_this());
}

void NetworkManagerWatch::onBusConnected(sd_bus* bus)
{
    mName =
        std::make_unique<systembus::NameWatch>(bus, managerName, [this](const std::string& owner) { onOwner(owner); });
}

void NetworkManagerWatch::onBusLost()
{
    mName.reset();
    onOwner({});
}

void NetworkManagerWatch::onOwner(const std::string& owner)
{
    mMatch.reset();
    mQuery.reset();
    setConnectivity(owner.empty() ? Connectivity::NotRunning : Connectivity::Unknown);
    if (owner.empty()) return;
    const systembus::SignalRule rule{owner, managerPath, propertiesInterface, "PropertiesChanged",
                                     std::string("arg0='") + managerName + "'"};
    mMatch = std::make_unique<systembus::SignalMatch>(mConnection.bus(), rule,
                                                      [this](sd_bus_message*) { queryConnectivity(); });
    queryConnectivity();
}

// Called on each change of any property, because the signal may lack the value.
void NetworkManagerWatch::queryConnectivity()
{
    systembus::orBadAlloc(obtain(mQuery, [&](sd_bus_slot** slot) {
        return sd_bus_call_method_async(mConnection.bus(), slot, managerName, managerPath, propertiesInterface, "Get",
                                        onAnswer, this, "ss", managerName, "Connectivity");
    }));
}

int NetworkManagerWatch::onAnswer(sd_bus_message* reply, void* self, sd_bus_error*)
{
    std::uint32_t value = 0;
    if (sd_bus_message_is_method_error(reply, nullptr) > 0) return 0;
    if (sd_bus_message_enter_container(reply, 'v', "u") <= 0) return 0;
    if (sd_bus_message_read_basic(reply, 'u', &value) <= 0) return 0;
    const bool known = value <= static_cast<unsigned>(Connectivity::Full);
    static_cast<NetworkManagerWatch*>(self)->setConnectivity(known ? static_cast<Connectivity>(value)
                                                                   : Connectivity::Unknown);
    return 0;
}

void NetworkManagerWatch::setConnectivity(Connectivity connectivity)
{
    if (std::exchange(mConnectivity, connectivity) != connectivity) mOnChange();
}

}  // namespace connectionmanager
