// SPDX-License-Identifier: Apache-2.0
//
// The state of the kernel: of the interface that may be configured, and of a packet that a filter may drop.
#ifndef CONFORMANCE_NETWORKSTATE_H
#define CONFORMANCE_NETWORKSTATE_H

#include <string>

namespace conformance {

/// Link state, IPv4 addresses and IPv4 routes (of all interfaces) as one text; two of them can be compared.
std::string networkState(const std::string& interfaceName);
/// True when the interface is up and has the address (dotted).
bool isUpWithAddress(const std::string& interfaceName, const std::string& address);
/// True when the main table has a route to the network (dotted) with this prefix length through the interface.
bool hasRoute(const std::string& interfaceName, const std::string& network, int prefix);

/// An unused UDP port of the loopback device, and whether datagrams reach it.
class LoopbackPort {
public:
    /// Throws std::system_error.
    LoopbackPort();
    ~LoopbackPort();
    LoopbackPort(const LoopbackPort&) = delete;
    LoopbackPort& operator=(const LoopbackPort&) = delete;

    unsigned short port() const { return mPort; }
    bool isReachable() const;

private:
    int mReceiver;
    unsigned short mPort = 0;
};

}  // namespace conformance

#endif
