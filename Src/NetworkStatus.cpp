// SPDX-License-Identifier: Apache-2.0
#include "NetworkStatus.h"

#include <string>

#include "Decisions/NetworkDecision.h"
#include "Decisions/StatusPayload.h"
#include "Log.h"
#include "ObjectRegistry.h"
#include "QuorClient.h"
#include "SocketInterface.h"
#include "SystemInterface.h"
#include "handles/JsonParser.h"

namespace {

const char* text(bool flag)
{
    return flag ? "true" : "false";
}

// False when there is no system or no socket object.
bool copyBoundName(std::string& name)
{
    const UseGuard use;
    if (use.systemIf() == nullptr || use.socketIf() == nullptr) return false;
    name = use.socketIf()->getBoundInterface();
    return true;
}

}  // namespace

bool handleConManServiceStatus(QSHandle*, const char*, bool connected, void*)
{
    if (!connected) return true;
    const bool sent = quorSend("vesk://com.vesk.connectionmanager/getStatus", "{\"subscribe\":true}",
                               handleConManNetworkStatus, nullptr);
    if (sent) {
        WFOAL_DEBUG("%s: Sent Request to register for ConMan Events", __func__);
    } else {
        WFOAL_ERROR("%s: Failed to register for ConMan subscription", __func__);
    }
    return true;
}

bool handleConManNetworkStatus(QSHandle*, QSMessage* message, void*)
{
    const QSMessageToken token = QSMessageGetResponseToken(message);
    const char* payload = QSMessageGetPayload(message);
    JsonPtr status;
    if (payload != nullptr) {
        status = jsonparser::parse(payload);
        WFOAL_DEBUG("%s Recieved: %ld, %s", __func__, static_cast<long>(token), payload);
    }
    std::string boundName;
    if (!copyBoundName(boundName) || status == nullptr) return true;
    const auto [wifi, wan] = wfoal::readStatus(status.get());
    const wfoal::NetworkDecision decision = wfoal::decideNetworkChange(wifi, wan, boundName);
    if (decision.reason != nullptr) WFOAL_DEBUG("%s: %s", __func__, decision.reason);
    WFOAL_DEBUG(
        "%s: BndIf(%s) isWiFiConnected(%s) isWiFiNotOnInternet(%s) isWanConnected(%s) isWanNotOnInternet(%s) "
        "sendNwCng(%s)",
        __func__, boundName.c_str(), text(wifi.connected), text(wifi.notOnInternet), text(wan.connected),
        text(wan.notOnInternet), text(decision.sendNwCng));
    if (decision.sendNwCng) {
        WFOAL_DEBUG("%s Sending Network Change Event", __func__);
        // Look it up again: the agent may have disposed of the object meanwhile.
        const UseGuard use;
        if (use.systemIf() != nullptr) use.systemIf()->notifyConnectionChange();
    }
    return true;
}
