// SPDX-License-Identifier: Apache-2.0
//
// One TLS session over a connected, non-blocking TCP socket, either side. Nothing here waits: every operation does what
// it can at once and says what the socket must be ready for next. Used on one thread; SIGPIPE must be ignored.
#ifndef SAMPLECLIENT_TLSSTREAM_H
#define SAMPLECLIENT_TLSSTREAM_H

#include <cstddef>
#include <string>

#include "client/TlsHandles.h"
#include "handles/UniqueFd.h"

namespace sampleclient {

class TlsStream {
public:
    enum class Side { Client, Server };
    enum class Result { Done, WantsRead, WantsWrite, Closed };

    /// Takes the socket over. Throws CommandError when memory runs out.
    TlsStream(SSL_CTX* context, UniqueFd socket, Side side);

    int descriptor() const { return mSocket.get(); }

    Result handshake();
    /// With Done, `count` bytes were read or written, at least one.
    Result read(char* buffer, std::size_t size, std::size_t& count);
    Result write(const char* data, std::size_t size, std::size_t& count);
    /// Tells the peer that this was all, as far as that can be told at once.
    void shutDown();

    /// Why the stream is closed, in OpenSSL's or the system's words.
    const std::string& reason() const { return mReason; }
    /// "TLSv1.1" and the like; the cipher's OpenSSL name.
    std::string protocol() const;
    std::string cipher() const;
    /// The other side's certificate; null when it showed none.
    X509Ptr peerCertificate() const;

private:
    Result resultOf(int returned);

    UniqueFd mSocket;
    SslPtr mSession;
    std::string mReason;
};

/// A context for both sides: TLS 1.0 and 1.1 only, without renegotiation, tickets or resumed sessions, so that every
/// connection is judged anew. A certificate handle signs the 36 bytes of MD5 and SHA-1 that these two versions ask for,
/// and nothing else. Throws CommandError.
SslCtxPtr newTlsContext(TlsStream::Side side);

/// OpenSSL's oldest waiting error in its own words; all that wait are dropped.
std::string takeTlsError();

}  // namespace sampleclient

#endif
