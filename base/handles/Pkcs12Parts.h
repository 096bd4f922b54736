// SPDX-License-Identifier: Apache-2.0
//
// A PKCS#12 bundle taken apart into its key and the key's certificate.
#ifndef HANDLES_PKCS12PARTS_H
#define HANDLES_PKCS12PARTS_H

#include <openssl/err.h>

#include <cstring>

#include "KeyMatch.h"
#include "LegacyProvider.h"
#include "Pkcs12Iterations.h"

struct Pkcs12Parts {
    EvpPkeyPtr key;       // the bundle's first; null when it holds none
    X509Ptr certificate;  // null when the bundle holds none for the key
};

enum class Pkcs12Fault {
    None,
    WrongPassword,
    TooManyIterations,  // more than largestPkcs12Iterations
    Undecodable,        // or, in a bundle without a MAC, the password is wrong
};

namespace pkcs12parts {

// The id of the first key; null when it has none. It lives as long as the bag.
inline const ASN1_OCTET_STRING* keyIdOf(const PKCS12_SAFEBAG* bag)
{
    const ASN1_TYPE* id = PKCS12_SAFEBAG_get0_attr(bag, NID_localKeyID);
    return id != nullptr && ASN1_TYPE_get(id) == V_ASN1_OCTET_STRING ? id->value.octet_string : nullptr;
}

inline bool hasKeyId(X509* certificate, const ASN1_OCTET_STRING* keyId)
{
    int length = 0;
    const unsigned char* bytes = X509_keyid_get0(certificate, &length);
    return bytes != nullptr && length == ASN1_STRING_length(keyId) &&
           std::memcmp(bytes, ASN1_STRING_get0_data(keyId), static_cast<std::size_t>(length)) == 0;
}

// Takes the certificate that cannot be compared with the key but bears the same id.
inline X509Ptr takeMarkedCertificate(STACK_OF(X509) * certificates, EVP_PKEY* key, const ASN1_OCTET_STRING* keyId)
{
    for (int i = 0; keyId != nullptr && i < sk_X509_num(certificates); ++i) {
        X509* certificate = sk_X509_value(certificates, i);
        if (hasKeyId(certificate, keyId) && matchKey(certificate, key) == KeyMatch::NotComparable) {
            return X509Ptr(sk_X509_delete(certificates, i));
        }
    }
    return nullptr;
}

inline X509Ptr takeMarkedCertificate(STACK_OF(X509) * certificates, EVP_PKEY* key, const PKCS12* bundle,
                                     const char* password)
{
    X509Ptr certificate;
    walkPkcs12(
        bundle, password, [](const X509_ALGOR*) { return true; },
        [&](const PKCS12_SAFEBAG* bag) {
            const int kind = PKCS12_SAFEBAG_get_nid(bag);
            if (kind != NID_keyBag && kind != NID_pkcs8ShroudedKeyBag) return true;
            certificate = takeMarkedCertificate(certificates, key, keyIdOf(bag));
            return false;  // the first key's id is the one that counts
        });
    return certificate;
}

// PKCS12_parse() hands over the certificate whose public key is the key's, and none when it cannot compare.
inline bool parse(PKCS12* bundle, const char* password, Pkcs12Parts& parts)
{
    ERR_clear_error();
    EVP_PKEY* key = nullptr;
    X509* certificate = nullptr;
    STACK_OF(X509)* others = nullptr;
    if (PKCS12_parse(bundle, password, &key, &certificate, &others) != 1) return false;
    const X509StackPtr rest(others);
    parts.key.reset(key);
    parts.certificate.reset(certificate);
    if (!parts.key || parts.certificate) return true;
    parts.certificate = takeMarkedCertificate(others, key, bundle, password);
    if (!parts.certificate && *password == '\0') {
        parts.certificate = takeMarkedCertificate(others, key, bundle, nullptr);
    }
    return true;
}

// A bundle without a MAC opens without a password only. So it gets a MAC made with the password, and the decryption
// alone tells whether the password is right.
inline bool parseWithoutMac(PKCS12* bundle, const char* password, Pkcs12Parts& parts)
{
    if (*password == '\0' && parse(bundle, password, parts)) return true;
    return PKCS12_set_mac(bundle, password, -1, nullptr, 0, 1, nullptr) == 1 && parse(bundle, password, parts);
}

}  // namespace pkcs12parts

/// Opens the bundle; the password must not be null. After a wrong password or an undecodable bundle the reason is the
/// oldest in OpenSSL's error queue. A bundle without a MAC may get one.
inline Pkcs12Fault takePkcs12Apart(PKCS12* bundle, const char* password, Pkcs12Parts& parts)
{
    const ProviderPtr legacy = loadLegacyProvider();
    // An empty password may also mean none, which is another password.
    if (exceedsPkcs12Iterations(bundle, password) || (*password == '\0' && exceedsPkcs12Iterations(bundle, nullptr))) {
        ERR_clear_error();
        return Pkcs12Fault::TooManyIterations;
    }
    const bool hasMac = PKCS12_mac_present(bundle) == 1;
    const bool isOpen =
        hasMac ? pkcs12parts::parse(bundle, password, parts) : pkcs12parts::parseWithoutMac(bundle, password, parts);
    if (isOpen) return Pkcs12Fault::None;
    const bool isWrongMac = ERR_GET_REASON(ERR_peek_last_error()) == PKCS12_R_MAC_VERIFY_FAILURE;
    return hasMac && isWrongMac ? Pkcs12Fault::WrongPassword : Pkcs12Fault::Undecodable;
}

#endif
