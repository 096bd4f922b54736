// SPDX-License-Identifier: Apache-2.0
#include "client/TlsStream.h"

#include <openssl/err.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "CommandError.h"

using namespace vpnoalctl;

namespace sampleclient {

SslCtxPtr newTlsContext(TlsStream::Side side)
{
    SslCtxPtr context(SSL_CTX_new(side == TlsStream::Side::Client ? TLS_client_method() : TLS_server_method()));
    if (!context || SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION) != 1 ||
        SSL_CTX_set_max_proto_version(context.get(), TLS1_1_VERSION) != 1 ||
        // MD5 and SHA-1 are below OpenSSL's default level.
        SSL_CTX_set_cipher_list(context.get(), "DEFAULT:@SECLEVEL=0") != 1) {
        throw CommandError("TLS", takeTlsError(), "OpenSSL must allow TLS 1.0 and 1.1");
    }
    SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_TICKET | SSL_OP_IGNORE_UNEXPECTED_EOF);
    SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
    SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    return context;
}

std::string takeTlsError()
{
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    const char* text = ERR_reason_error_string(code);
    return text != nullptr ? text : "unknown error of OpenSSL";
}

TlsStream::TlsStream(SSL_CTX* context, UniqueFd socket, Side side)
    : mSocket(std::move(socket)), mSession(SSL_new(context))
{
    if (!mSession || SSL_set_fd(mSession.get(), mSocket.get()) != 1) throw CommandError("TLS", takeTlsError(), "");
    side == Side::Client ? SSL_set_connect_state(mSession.get()) : SSL_set_accept_state(mSession.get());
}

TlsStream::Result TlsStream::resultOf(int returned)
{
    if (returned > 0) return Result::Done;
    const int error = errno;
    switch (SSL_get_error(mSession.get(), returned)) {
    case SSL_ERROR_WANT_READ: return Result::WantsRead;
    case SSL_ERROR_WANT_WRITE: return Result::WantsWrite;
    case SSL_ERROR_ZERO_RETURN: mReason = "the other side ended the connection"; break;
    case SSL_ERROR_SYSCALL: mReason = std::generic_category().message(error != 0 ? error : ECONNRESET); break;
    default: mReason = takeTlsError();
    }
    ERR_clear_error();
    return Result::Closed;
}

TlsStream::Result TlsStream::handshake()
{
    ERR_clear_error();
    errno = 0;
    return resultOf(SSL_do_handshake(mSession.get()));
}

TlsStream::Result TlsStream::read(char* buffer, std::size_t size, std::size_t& count)
{
    ERR_clear_error();
    errno = 0;
    return resultOf(SSL_read_ex(mSession.get(), buffer, size, &count));
}

TlsStream::Result TlsStream::write(const char* data, std::size_t size, std::size_t& count)
{
    ERR_clear_error();
    errno = 0;
    return resultOf(SSL_write_ex(mSession.get(), data, size, &count));
}

void TlsStream::shutDown()
{
    if (mReason.empty() && SSL_is_init_finished(mSession.get()) == 1) SSL_shutdown(mSession.get());
    ERR_clear_error();
}

std::string TlsStream::protocol() const
{
    return SSL_get_version(mSession.get());
}

std::string TlsStream::cipher() const
{
    return SSL_get_cipher_name(mSession.get());
}

X509Ptr TlsStream::peerCertificate() const
{
    return X509Ptr(SSL_get1_peer_certificate(mSession.get()));
}

}  // namespace sampleclient
