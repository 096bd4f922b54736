// SPDX-License-Identifier: Apache-2.0
//
// The agent's connection to its gateway: the interface that the plug-in prefers, a socket bound to it, TCP, TLS.
#ifndef VPNOALCTL_OUTERCONNECTION_H
#define VPNOALCTL_OUTERCONNECTION_H

#include <memory>
#include <string>

#include "connect/ClientTls.h"
#include "connect/EventLog.h"
#include "connect/Waiter.h"
#include "kest/SocketPlugin.h"
#include "profile/Gateway.h"

namespace vpnoalctl {

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

}  // namespace vpnoalctl

#endif
