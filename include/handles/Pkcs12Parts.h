// SPDX-License-Identifier: Apache-2.0
//
// A PKCS#12 bundle taken apart into the key and the key's certificate.
#ifndef HANDLES_PKCS12PARTS_H
#define HANDLES_PKCS12PARTS_H

#include <openssl/err.h>

#include "OpenSsl.h"

struct Pkcs12Parts {
    EvpPkeyPtr key;       // null when the bundle holds none
    X509Ptr certificate;  // null when the bundle holds none for the key
};

/// The certificate that the bundle itself marks as the key's. OpenSSL only hands over one whose public key it can
/// compare, which it cannot where the parameters of a DSA key stand in the issuer's certificate.
inline X509Ptr takeMarkedCertificate(STACK_OF(X509) * certificates)
{
    for (int i = 0; i < sk_X509_num(certificates); ++i) {
        int length = 0;
        if (X509_keyid_get0(sk_X509_value(certificates, i), &length) != nullptr) {
            return X509Ptr(sk_X509_delete(certificates, i));
        }
    }
    return nullptr;
}

/// Opens the bundle. False when it does not open; the reason is then the oldest in OpenSSL's error queue.
inline bool takePkcs12Apart(PKCS12* bundle, const char* password, Pkcs12Parts& parts)
{
    // Older files are encrypted with ciphers that today's default provider has no more. The flag keeps the default
    // provider's automatic loading.
    const ProviderPtr legacy(OSSL_PROVIDER_try_load(nullptr, "legacy", 1));
    ERR_clear_error();
    EVP_PKEY* key = nullptr;
    X509* certificate = nullptr;
    STACK_OF(X509)* others = nullptr;
    if (PKCS12_parse(bundle, password, &key, &certificate, &others) != 1) return false;
    const X509StackPtr unused(others);
    parts.key.reset(key);
    parts.certificate.reset(certificate);
    if (parts.key && !parts.certificate) parts.certificate = takeMarkedCertificate(others);
    return true;
}

#endif
