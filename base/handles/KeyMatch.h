// SPDX-License-Identifier: Apache-2.0
//
// Whether a certificate was made for a private key.
#ifndef HANDLES_KEYMATCH_H
#define HANDLES_KEYMATCH_H

#include <openssl/err.h>

#include "OpenSsl.h"

enum class KeyMatch { Same, Different, NotComparable };

/// A DSA certificate may leave its parameters to the issuer's certificate. Then its public key cannot be read alone.
inline bool inheritsParameters(const X509* certificate)
{
    X509_ALGOR* algorithm = nullptr;
    X509_PUBKEY_get0_param(nullptr, nullptr, nullptr, &algorithm, X509_get_X509_PUBKEY(certificate));
    const ASN1_OBJECT* name = nullptr;
    int parameterType = V_ASN1_UNDEF;
    X509_ALGOR_get0(&name, &parameterType, nullptr, algorithm);
    return OBJ_obj2nid(name) == NID_dsa && parameterType != V_ASN1_SEQUENCE;
}

/// Leaves OpenSSL's error queue as it was.
inline KeyMatch matchKey(X509* certificate, EVP_PKEY* key)
{
    if (EVP_PKEY_get_base_id(key) == EVP_PKEY_DSA && inheritsParameters(certificate)) return KeyMatch::NotComparable;
    ERR_set_mark();
    const bool isSame = X509_check_private_key(certificate, key) == 1;
    ERR_pop_to_mark();
    return isSame ? KeyMatch::Same : KeyMatch::Different;
}

#endif
