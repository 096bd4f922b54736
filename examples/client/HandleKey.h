// SPDX-License-Identifier: Apache-2.0
//
// A private key for OpenSSL that is none: a certificate's public key, whose signatures a certificate handle of the
// plug-in makes. So the key itself never leaves the plug-in.
#ifndef SAMPLECLIENT_HANDLEKEY_H
#define SAMPLECLIENT_HANDLEKEY_H

#include "certificates/ClientHandles.h"
#include "client/TlsHandles.h"

namespace sampleclient {

/// The key that stands for the handle; `signer` must outlive it. Throws CommandError when the certificate has no RSA
/// key.
EvpPkeyPtr keyOfHandle(const vpnoalctl::HandleSigner& signer, X509* certificate);

}  // namespace sampleclient

#endif
