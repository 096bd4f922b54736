// SPDX-License-Identifier: Apache-2.0
//
// A private key for OpenSSL that is none: a certificate's public key, whose signatures a certificate handle of the
// plug-in makes. So the key itself never leaves the plug-in.
#ifndef VPNOALCTL_HANDLEKEY_H
#define VPNOALCTL_HANDLEKEY_H

#include <string>

#include "certificates/ClientHandles.h"
#include "handles/Tls.h"

namespace vpnoalctl {

/// The handle and what opens its key. Must outlive every key made of it.
struct HandleSigner {
    ClientCertHandle& handle;
    const char* password = nullptr;  ///< null when the key is not encrypted

    /// The signature of 36 bytes; empty when the handle makes none.
    Bytes sign(const unsigned char* hash, unsigned int length) const;
};

/// The key that stands for the handle. Throws CommandError when the certificate has no RSA key.
EvpPkeyPtr keyOfHandle(const HandleSigner& signer, X509* certificate);

}  // namespace vpnoalctl

#endif
