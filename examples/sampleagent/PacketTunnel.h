// SPDX-License-Identifier: Apache-2.0
//
// A SAMPLE packet tunnel, NOT SECURE: every IP packet travels as one UDP datagram, neither encrypted nor authenticated,
// and the gateway answers whoever wrote last. It stands where an agent has its real tunnel protocol. Used on one
// thread; failures are thrown as std::system_error.
#ifndef SAMPLEAGENT_PACKETTUNNEL_H
#define SAMPLEAGENT_PACKETTUNNEL_H

#include <netinet/in.h>

#include "handles/UniqueFd.h"

namespace sampleagent {

/// The UDP side of the tunnel.
class OuterSocket {
public:
    OuterSocket();

    /// For binding it to a network interface.
    int descriptor() const { return mSocket.get(); }

    /// Gateway: receives on a port of every address.
    void listen(in_port_t port);
    /// Handset: greets the gateway until it answers, for about five seconds. False when it does not.
    bool greet(const sockaddr_in& gateway);

    /// Moves one datagram into the device. An empty datagram is a greeting and is answered.
    void receiveInto(int device);
    /// Moves one packet from the device to the other side; dropped while there is none.
    void sendFrom(int device);

private:
    void send(const void* data, std::size_t size) const;

    UniqueFd mSocket;
    sockaddr_in mPeer{};  // port 0: not known yet
    bool mGateway = false;
};

/// Moves packets both ways until `stop` becomes readable: then true. False when the device has disappeared.
bool pumpPackets(OuterSocket& outer, int device, int stop);

}  // namespace sampleagent

#endif
