// SPDX-License-Identifier: Apache-2.0
#include "ClientSession.h"

#include <poll.h>

#include <utility>

#include "OuterSocket.h"
#include "certificates/CertificateFile.h"

namespace samplegateway {

using sampleclient::TlsStream;

ClientSession::ClientSession(SSL_CTX* context, UniqueFd socket, const sockaddr_in& peer)
    : mStream(context, std::move(socket), TlsStream::Side::Server),
      mPeer(vpnoalctl::endpointText(peer)),
      mWanted(POLLIN),
      mDeadline(std::chrono::steady_clock::now() + std::chrono::minutes(1))
{
}

ClientSession::State ClientSession::shakeHands()
{
    switch (mStream.handshake()) {
    case TlsStream::Result::Done: return State::Ready;
    case TlsStream::Result::Closed: return State::Ended;
    case TlsStream::Result::WantsWrite: mWanted = POLLOUT; break;
    case TlsStream::Result::WantsRead: mWanted = POLLIN; break;
    }
    return State::ShakingHands;
}

bool ClientSession::isTooSlow() const
{
    return std::chrono::steady_clock::now() > mDeadline;
}

std::string ClientSession::subject() const
{
    const X509Ptr certificate = mStream.peerCertificate();
    return certificate ? vpnoalctl::summarize(certificate.get()).subject : "nobody";
}

}  // namespace samplegateway
