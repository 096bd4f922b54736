// SPDX-License-Identifier: Apache-2.0
//
// A SAMPLE: one client of the gateway, from its TCP connection on. Nothing here waits.
#ifndef SAMPLEGATEWAY_CLIENTSESSION_H
#define SAMPLEGATEWAY_CLIENTSESSION_H

#include <netinet/in.h>

#include <chrono>
#include <string>

#include "client/TlsStream.h"

namespace samplegateway {

class ClientSession {
public:
    /// Takes a connection over. Throws CommandError.
    ClientSession(SSL_CTX* context, UniqueFd socket, const sockaddr_in& peer);

    enum class State { ShakingHands, Ready, Ended };
    /// Goes on with the handshake.
    State shakeHands();
    /// A client that has not proved itself in a minute, in which its user may be asked, is let go.
    bool isTooSlow() const;

    sampleclient::TlsStream& stream() { return mStream; }
    /// What to poll() for while hands are shaken.
    short wanted() const { return mWanted; }
    /// "192.0.2.10:49152"
    const std::string& peer() const { return mPeer; }
    /// Subject of the certificate that it proved to have.
    std::string subject() const;

private:
    sampleclient::TlsStream mStream;
    std::string mPeer;
    short mWanted;
    std::chrono::steady_clock::time_point mDeadline;
};

}  // namespace samplegateway

#endif
