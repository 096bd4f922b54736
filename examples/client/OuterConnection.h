// SPDX-License-Identifier: Apache-2.0
//
// The agent's connection to its gateway: the interface that the plug-in prefers, a socket bound to it, TCP, TLS.
#ifndef SAMPLECLIENT_OUTERCONNECTION_H
#define SAMPLECLIENT_OUTERCONNECTION_H

#include <memory>
#include <string>

#include "client/ClientTls.h"
#include "client/EventLog.h"
#include "client/Gateway.h"
#include "client/Waiter.h"
#include "kest/SocketPlugin.h"

namespace sampleclient {

class OuterConnection {
public:
    OuterConnection(KEST_SocketPlugin& sockets, const GatewaySettings& gateway, ClientTls& tls, Waiter& waiter,
                    EventLog& log)
        : mSockets(sockets), mGateway(gateway), mTls(tls), mWaiter(waiter), mLog(log)
    {
    }

    /// Makes a fresh connection, from the choice of the interface to the end of the handshake. Throws CommandError,
    /// with ExitFailed when trying again may help; throws Interrupted.
    std::unique_ptr<TlsStream> open();

    /// False once the plug-in prefers another interface than the one that was bound.
    bool isOnPreferredInterface() { return preferredInterface() == mInterface; }

private:
    std::string preferredInterface();
    UniqueFd connectSocket();
    void shakeHands(TlsStream& stream);

    KEST_SocketPlugin& mSockets;
    const GatewaySettings& mGateway;
    ClientTls& mTls;
    Waiter& mWaiter;
    EventLog& mLog;
    std::string mInterface;
};

}  // namespace sampleclient

#endif
