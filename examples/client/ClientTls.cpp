// SPDX-License-Identifier: Apache-2.0
#include "client/ClientTls.h"

#include <utility>

#include "CommandError.h"

using namespace vpnoalctl;

namespace sampleclient {

ClientTls::ClientTls(ClientCertHandle& handle, const char* password, Judge judge)
    : mSigner{handle, password}, mJudge(std::move(judge)), mContext(newTlsContext(TlsStream::Side::Client))
{
    const X509Ptr certificate = certificateOf(handle);
    const EvpPkeyPtr key = keyOfHandle(mSigner, certificate.get());
    SSL_CTX_set_verify(mContext.get(), SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(mContext.get(), judgeChain, this);
    if (SSL_CTX_use_certificate(mContext.get(), certificate.get()) != 1 ||
        SSL_CTX_use_PrivateKey(mContext.get(), key.get()) != 1) {
        throw CommandError("certificate", takeTlsError(), "choose another one");
    }
}

std::unique_ptr<TlsStream> ClientTls::open(UniqueFd socket)
{
    return std::make_unique<TlsStream>(mContext.get(), std::move(socket), TlsStream::Side::Client);
}

TlsStream::Result ClientTls::handshake(TlsStream& stream)
{
    mRefusal = nullptr;
    const TlsStream::Result result = stream.handshake();
    if (mRefusal) std::rethrow_exception(std::exchange(mRefusal, nullptr));
    return result;
}

// No exception may leave through OpenSSL's own code.
int ClientTls::judgeChain(X509_STORE_CTX* chain, void* self)
{
    auto* client = static_cast<ClientTls*>(self);
    try {
        // The first certificate of what was sent is the server's own.
        STACK_OF(X509)* sent = X509_STORE_CTX_get0_untrusted(chain);
        std::vector<Bytes> intermediates;
        for (int i = 1; i < sk_X509_num(sent); ++i)
            intermediates.push_back(derOf(sk_X509_value(sent, i)));
        client->mJudge(derOf(X509_STORE_CTX_get0_cert(chain)), intermediates);
        X509_STORE_CTX_set_error(chain, X509_V_OK);
        return 1;
    } catch (...) {
        client->mRefusal = std::current_exception();
        X509_STORE_CTX_set_error(chain, X509_V_ERR_APPLICATION_VERIFICATION);
        return 0;
    }
}

}  // namespace sampleclient
