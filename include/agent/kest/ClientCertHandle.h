// SPDX-License-Identifier: Apache-2.0
//
// A client certificate with the means to reach its private key. The certificate interface hands handles out; the agent
// owns each until it gives it to KEST_CertPlugin::DisposeClientCertHandle(), and uses it on its own thread.
#ifndef KEST_CLIENTCERTHANDLE_H
#define KEST_CLIENTCERTHANDLE_H

#include "Plugin.h"

class ClientCertHandle {
public:
    /// Points `data` at the certificate in DER form, `length` bytes. The bytes stay the handle's own and are valid
    /// until it is disposed of. Always PLUGIN_SUCCESS.
    virtual PluginResult GetCertDer(unsigned int& length, unsigned char*& data) = 0;
    /// Signs the 36 bytes of MD5 and SHA-1 of a TLS 1.0 or 1.1 handshake with the private key. `signature` must point
    /// to at least as many bytes as the RSA modulus has; `signatureLength` receives the number written.
    /// `keyPassword` opens an encrypted key file and may be null. PLUGIN_FAILURE when no signature was made.
    virtual PluginResult SignSSL(const unsigned char* data, unsigned int length, unsigned char*& signature,
                                 unsigned int& signatureLength, const char* keyPassword) = 0;
    virtual ~ClientCertHandle() {}
};

#endif
