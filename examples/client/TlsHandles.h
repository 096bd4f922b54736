// SPDX-License-Identifier: Apache-2.0
//
// Owners of what a TLS connection of OpenSSL takes.
#ifndef SAMPLECLIENT_TLSHANDLES_H
#define SAMPLECLIENT_TLSHANDLES_H

#include <openssl/ssl.h>

#include "handles/OpenSsl.h"

using SslPtr = OpenSslPtr<SSL, SSL_free>;
using SslCtxPtr = OpenSslPtr<SSL_CTX, SSL_CTX_free>;
using RsaMethodPtr = OpenSslPtr<RSA_METHOD, RSA_meth_free>;

#endif
