// SPDX-License-Identifier: Apache-2.0
#include "TlsClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <vector>

#include "handles/OpenSsl.h"
#include "handles/UniqueFd.h"

namespace testsupport {

namespace {

using SslCtxPtr = OpenSslPtr<SSL_CTX, SSL_CTX_free>;
using SslPtr = OpenSslPtr<SSL, SSL_free>;
using RsaMethodPtr = OpenSslPtr<RSA_METHOD, RSA_meth_free>;

// What the callbacks of one connection need.
struct Connection {
    KEST_CertPlugin& certificates;
    ClientCertHandle& handle;
    const TlsOptions& options;
    bool asked = false;
};

// OpenSSL's request for the signature of a key that it does not have.
int signByHandle(int, const unsigned char* hash, unsigned int hashLength, unsigned char* signature,
                 unsigned int* signatureLength, const RSA* key)
{
    auto* connection = static_cast<Connection*>(RSA_get_app_data(const_cast<RSA*>(key)));
    return connection->handle.SignSSL(hash, hashLength, signature, *signatureLength, connection->options.keyPassword) ==
           PLUGIN_SUCCESS;
}

std::vector<unsigned char> derOf(X509* certificate)
{
    std::vector<unsigned char> der(static_cast<std::size_t>(i2d_X509(certificate, nullptr)));
    unsigned char* end = der.data();
    i2d_X509(certificate, &end);
    return der;
}

int judgeByPlugin(X509_STORE_CTX* context, void* argument)
{
    auto* connection = static_cast<Connection*>(argument);
    STACK_OF(X509)* sent = X509_STORE_CTX_get0_untrusted(context);
    for (int i = 1; i < sk_X509_num(sent); ++i) {
        const auto der = derOf(sk_X509_value(sent, i));
        connection->certificates.AddVerificationCert(der.data(), static_cast<unsigned>(der.size()));
    }
    const auto der = derOf(X509_STORE_CTX_get0_cert(context));
    return connection->certificates.VerifyServerCertificate(der.data(), static_cast<unsigned>(der.size()),
                                                            connection->options.serverName,
                                                            connection->asked) == PLUGIN_SUCCESS;
}

// The certificate's public key, with the handle in place of the private half.
EvpPkeyPtr keyOfHandle(X509* certificate, RSA_METHOD* method, Connection& connection)
{
    RsaPtr key(EVP_PKEY_get1_RSA(X509_get0_pubkey(certificate)));
    RsaPtr own(RSAPublicKey_dup(key.get()));
    RSA_set_method(own.get(), method);
    RSA_set_app_data(own.get(), &connection);
    EvpPkeyPtr holder(EVP_PKEY_new());
    EVP_PKEY_assign_RSA(holder.get(), own.release());
    return holder;
}

std::string lastError()
{
    char text[256];
    ERR_error_string_n(ERR_peek_last_error(), text, sizeof text);
    ERR_clear_error();
    return text;
}

UniqueFd connectTo(int port)
{
    UniqueFd socketFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(socketFd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return UniqueFd();
    return socketFd;
}

std::string readLine(SSL* session)
{
    std::string line;
    char character = 0;
    while (SSL_read(session, &character, 1) == 1 && character != '\n')
        line += character;
    return line;
}

}  // namespace

TlsResult talkOverTls(KEST_CertPlugin& certificates, ClientCertHandle& handle, const TlsOptions& options,
                      const std::string& line)
{
    TlsResult result;
    Connection connection{certificates, handle, options};
    const RsaMethodPtr method(RSA_meth_dup(RSA_PKCS1_OpenSSL()));
    RSA_meth_set_sign(method.get(), signByHandle);

    unsigned int length = 0;
    unsigned char* der = nullptr;
    handle.GetCertDer(length, der);
    const unsigned char* position = der;
    const X509Ptr own(d2i_X509(nullptr, &position, static_cast<long>(length)));
    const EvpPkeyPtr key = keyOfHandle(own.get(), method.get(), connection);

    const SslCtxPtr context(SSL_CTX_new(TLS_client_method()));
    SSL_CTX_set_min_proto_version(context.get(), options.protocol);
    SSL_CTX_set_max_proto_version(context.get(), options.protocol);
    SSL_CTX_set_cipher_list(context.get(), "DEFAULT:@SECLEVEL=0");
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(context.get(), judgeByPlugin, &connection);
    if (SSL_CTX_use_certificate(context.get(), own.get()) != 1 ||
        SSL_CTX_use_PrivateKey(context.get(), key.get()) != 1) {
        result.error = lastError();
        return result;
    }
    const UniqueFd socketFd = connectTo(options.port);
    const SslPtr session(SSL_new(context.get()));
    SSL_set_fd(session.get(), socketFd.get());
    result.connected = SSL_connect(session.get()) == 1;
    result.asked = connection.asked;
    if (!result.connected) {
        result.error = lastError();
        return result;
    }
    const std::string text = line + "\n";
    SSL_write(session.get(), text.data(), static_cast<int>(text.size()));
    result.echoed = readLine(session.get());
    SSL_shutdown(session.get());
    return result;
}

}  // namespace testsupport
