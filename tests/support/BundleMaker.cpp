// SPDX-License-Identifier: Apache-2.0
#include "BundleMaker.h"

#include <openssl/dsa.h>

#include <cstring>
#include <stdexcept>

#include "handles/LegacyProvider.h"

namespace testsupport {

namespace {

template <typename T>
T made(T object)
{
    if (!object) throw std::runtime_error("make PKCS#12");
    return object;
}

void addKeyId(PKCS12_SAFEBAG* bag, std::string keyId)
{
    if (keyId.empty()) return;
    made(PKCS12_add_localkeyid(bag, reinterpret_cast<unsigned char*>(keyId.data()), static_cast<int>(keyId.size())));
}

const EvpPkeyPtr& dsaParameters()
{
    static const EvpPkeyPtr parameters = [] {
        const OpenSslPtr<EVP_PKEY_CTX, EVP_PKEY_CTX_free> context(EVP_PKEY_CTX_new_from_name(nullptr, "DSA", nullptr));
        EVP_PKEY* key = nullptr;
        EVP_PKEY_paramgen_init(context.get());
        EVP_PKEY_CTX_set_dsa_paramgen_bits(context.get(), 1024);
        EVP_PKEY_paramgen(context.get(), &key);
        return EvpPkeyPtr(made(key));
    }();
    return parameters;
}

EvpPkeyPtr dsaKey()
{
    const OpenSslPtr<EVP_PKEY_CTX, EVP_PKEY_CTX_free> context(EVP_PKEY_CTX_new(dsaParameters().get(), nullptr));
    EVP_PKEY* key = nullptr;
    EVP_PKEY_keygen_init(context.get());
    EVP_PKEY_keygen(context.get(), &key);
    return EvpPkeyPtr(made(key));
}

void dropParameters(X509* certificate)
{
    X509_PUBKEY* key = X509_get_X509_PUBKEY(certificate);
    const unsigned char* bytes = nullptr;
    int length = 0;
    X509_PUBKEY_get0_param(nullptr, &bytes, &length, nullptr, key);
    auto* copy = static_cast<unsigned char*>(OPENSSL_memdup(bytes, static_cast<std::size_t>(length)));
    made(X509_PUBKEY_set0_param(key, OBJ_nid2obj(NID_dsa), V_ASN1_UNDEF, nullptr, copy, length));
}

}  // namespace

BundleMaker::BundleMaker(std::string password, BundleOptions options)
    : mPassword(std::move(password)),
      mOptions(options),
      mKeys(sk_PKCS12_SAFEBAG_new_null()),
      mCertificates(sk_PKCS12_SAFEBAG_new_null())
{
}

BundleMaker& BundleMaker::addKey(EVP_PKEY* key, const std::string& keyId)
{
    const ProviderPtr legacy = loadLegacyProvider();
    STACK_OF(PKCS12_SAFEBAG)* bags = mKeys.get();
    PKCS12_SAFEBAG* bag = made(PKCS12_add_key(&bags, key, 0, 1, mOptions.cipher, password()));
    addKeyId(bag, keyId);
    if (mOptions.keyAlgorithm != nullptr) {
        const X509_ALGOR* algorithm = nullptr;
        X509_SIG_get0(PKCS12_SAFEBAG_get0_pkcs8(bag), &algorithm, nullptr);
        made(X509_ALGOR_copy(const_cast<X509_ALGOR*>(algorithm), mOptions.keyAlgorithm));
    }
    return *this;
}

BundleMaker& BundleMaker::addCertificate(X509* certificate, const std::string& keyId)
{
    STACK_OF(PKCS12_SAFEBAG)* bags = mCertificates.get();
    addKeyId(made(PKCS12_add_cert(&bags, certificate)), keyId);
    return *this;
}

std::vector<unsigned char> BundleMaker::bytes() const
{
    const ProviderPtr legacy = loadLegacyProvider();
    STACK_OF(PKCS7)* parts = nullptr;
    made(PKCS12_add_safe(&parts, mCertificates.get(), mOptions.cipher, 1, password()));
    const Pkcs7StackPtr owner(parts);
    if (mOptions.certificateAlgorithm != nullptr) {
        PKCS7_ENC_CONTENT* content = sk_PKCS7_value(parts, 0)->d.encrypted->enc_data;
        made(X509_ALGOR_copy(content->algorithm, mOptions.certificateAlgorithm));
    }
    made(PKCS12_add_safe(&parts, mKeys.get(), mOptions.hidesKeys ? mOptions.cipher : -1, 1, password()));
    const Pkcs12Ptr bundle(made(PKCS12_add_safes(parts, 0)));
    if (mOptions.hasMac) made(PKCS12_set_mac(bundle.get(), password(), -1, nullptr, 0, 2, nullptr));
    if (mOptions.macIterations != 0) {
        const ASN1_INTEGER* iterations = nullptr;
        PKCS12_get0_mac(nullptr, nullptr, nullptr, &iterations, bundle.get());
        made(ASN1_INTEGER_set_int64(const_cast<ASN1_INTEGER*>(iterations), mOptions.macIterations));
    }
    std::vector<unsigned char> bytes(static_cast<std::size_t>(i2d_PKCS12(bundle.get(), nullptr)));
    unsigned char* end = bytes.data();
    i2d_PKCS12(bundle.get(), &end);
    return bytes;
}

Identity makeDsaIdentity(const std::string& commonName, const Identity& issuer)
{
    Identity identity = makeIdentity({commonName, 1}, &issuer);
    identity.key = dsaKey();
    X509_set_pubkey(identity.certificate.get(), identity.key.get());
    dropParameters(identity.certificate.get());
    signAgain(identity.certificate.get(), issuer.key.get());
    return identity;
}

}  // namespace testsupport
