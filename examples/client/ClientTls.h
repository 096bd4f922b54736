// SPDX-License-Identifier: Apache-2.0
//
// The client's side of TLS as an agent of the plug-in makes it: OpenSSL does the protocol, the gateway's certificate
// goes to a judge before anything is proved to the gateway, and possession of the client's key is proved by a handle.
#ifndef SAMPLECLIENT_CLIENTTLS_H
#define SAMPLECLIENT_CLIENTTLS_H

#include <exception>
#include <functional>
#include <memory>
#include <vector>

#include "client/HandleKey.h"
#include "client/TlsStream.h"

namespace sampleclient {

class ClientTls {
public:
    /// Called during the handshake with the gateway's certificate and what it sent with it, as DER. Throws to refuse.
    using Judge =
        std::function<void(const vpnoalctl::Bytes& server, const std::vector<vpnoalctl::Bytes>& intermediates)>;

    /// The handle must outlive this object, and this object every stream that it opened. Throws CommandError.
    ClientTls(ClientCertHandle& handle, const char* password, Judge judge);
    ClientTls(const ClientTls&) = delete;
    ClientTls& operator=(const ClientTls&) = delete;

    /// A stream over a connected, non-blocking socket; its handshake has yet to be made.
    std::unique_ptr<TlsStream> open(UniqueFd socket);
    /// Goes on with a stream's handshake. What the judge threw comes out here.
    TlsStream::Result handshake(TlsStream& stream);

private:
    static int judgeChain(X509_STORE_CTX* chain, void* self);

    vpnoalctl::HandleSigner mSigner;
    Judge mJudge;
    std::exception_ptr mRefusal;
    SslCtxPtr mContext;
};

}  // namespace sampleclient

#endif
