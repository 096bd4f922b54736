// SPDX-License-Identifier: Apache-2.0
#include "CertificateAuthority.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <utility>

#include "handles/LegacyProvider.h"

namespace testsupport {

namespace {

constexpr char trustedDirectory[] = "/var/ssl/trustedcerts/";
constexpr unsigned madeKeyBits = 2048;

void check(bool done, const char* what)
{
    if (!done) throw std::runtime_error(what);
}

void addExtension(X509* certificate, X509* issuer, int nid, const std::string& value)
{
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
    check(extension != nullptr, "make extension");
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

void setSubject(X509* certificate, const std::string& commonName)
{
    X509_NAME* name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("Test"), -1, -1, 0);
    if (commonName.empty()) return;
    X509_NAME_add_entry_by_NID(name, NID_commonName, V_ASN1_UTF8STRING,
                               reinterpret_cast<const unsigned char*>(commonName.data()),
                               static_cast<int>(commonName.size()), -1, 0);
}

std::string freeTrustedPath(const Identity& identity)
{
    char name[32];
    for (int i = 0;; ++i) {
        std::snprintf(name, sizeof name, "%08lx.%d", X509_subject_name_hash(identity.certificate.get()), i);
        if (!std::filesystem::exists(trustedDirectory + std::string(name))) return trustedDirectory + std::string(name);
    }
}

std::string textOf(BIO* bio)
{
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<std::size_t>(length));
}

// Those that were made with the tests.
std::map<int, EvpPkeyPtr> madeKeys()
{
    std::map<int, EvpPkeyPtr> keys;
    const BioPtr file(BIO_new_file(WFOAL_TEST_KEYS, "r"));
    check(file != nullptr, "open " WFOAL_TEST_KEYS);
    while (EvpPkeyPtr key{PEM_read_bio_PrivateKey(file.get(), nullptr, nullptr, nullptr)})
        keys.emplace(static_cast<int>(keys.size()), std::move(key));
    ERR_clear_error();  // the end of the file
    check(!keys.empty(), "read " WFOAL_TEST_KEYS);
    return keys;
}

}  // namespace

unsigned rsaKeyBits = madeKeyBits;

EvpPkeyPtr rsaKey(int number)
{
    static std::map<int, EvpPkeyPtr> keys = rsaKeyBits == madeKeyBits ? madeKeys() : std::map<int, EvpPkeyPtr>();
    EvpPkeyPtr& key = keys[number];
    if (!key) key.reset(EVP_RSA_gen(rsaKeyBits));
    check(key != nullptr, "make key");
    EVP_PKEY_up_ref(key.get());
    return EvpPkeyPtr(key.get());
}

Identity makeIdentity(const CertificateOptions& options, const Identity* issuer)
{
    static long serial = 1;
    Identity made{X509Ptr(X509_new()), rsaKey(options.keyNumber)};
    X509* certificate = made.certificate.get();
    X509* issuerCertificate = issuer != nullptr ? issuer->certificate.get() : certificate;
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial++);
    X509_gmtime_adj(X509_getm_notBefore(certificate), options.notBefore);
    X509_gmtime_adj(X509_getm_notAfter(certificate), options.notAfter);
    X509_set_pubkey(certificate, made.key.get());
    setSubject(certificate, options.commonName);
    X509_set_issuer_name(certificate, X509_get_subject_name(issuerCertificate));
    addExtension(certificate, issuerCertificate, NID_basic_constraints,
                 options.isCa ? "critical,CA:TRUE" : "critical,CA:FALSE");
    if (!options.isCa && !options.extendedKeyUsage.empty()) {
        addExtension(certificate, issuerCertificate, NID_ext_key_usage, options.extendedKeyUsage);
    }
    signAgain(certificate, issuer != nullptr ? issuer->key.get() : made.key.get());
    return made;
}

void signAgain(X509* certificate, EVP_PKEY* issuerKey)
{
    check(X509_sign(certificate, issuerKey, EVP_sha256()) > 0, "sign");
}

std::vector<unsigned char> Identity::der() const
{
    std::vector<unsigned char> bytes(static_cast<std::size_t>(i2d_X509(certificate.get(), nullptr)));
    unsigned char* end = bytes.data();
    i2d_X509(certificate.get(), &end);
    return bytes;
}

std::string Identity::pem() const
{
    const BioPtr bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(bio.get(), certificate.get());
    return textOf(bio.get());
}

std::string Identity::keyPem(const char* password) const
{
    const BioPtr bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_PrivateKey_traditional(bio.get(), key.get(), password != nullptr ? EVP_aes_256_cbc() : nullptr,
                                         nullptr, 0, nullptr, const_cast<char*>(password));
    return textOf(bio.get());
}

std::vector<unsigned char> Identity::pkcs12(const char* password, int cipher,
                                            const std::vector<const Identity*>& others) const
{
    const ProviderPtr legacy = loadLegacyProvider();
    STACK_OF(X509)* stack = sk_X509_new_null();
    for (const Identity* other : others)
        sk_X509_push(stack, other->certificate.get());
    const Pkcs12Ptr bundle(
        PKCS12_create(password, "test", key.get(), certificate.get(), stack, cipher, cipher, 0, 0, 0));
    sk_X509_free(stack);
    check(bundle != nullptr, "make PKCS#12");
    std::vector<unsigned char> bytes(static_cast<std::size_t>(i2d_PKCS12(bundle.get(), nullptr)));
    unsigned char* end = bytes.data();
    i2d_PKCS12(bundle.get(), &end);
    return bytes;
}

void writeFile(const std::string& path, const std::string& text)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

void writeFile(const std::string& path, const std::vector<unsigned char>& bytes)
{
    writeFile(path, std::string(bytes.begin(), bytes.end()));
}

void installTrusted(const Identity& identity)
{
    writeFile(freeTrustedPath(identity), identity.pem());
}

void installDistrusted(const Identity& identity)
{
    const X509Ptr certificate(X509_dup(identity.certificate.get()));
    check(X509_add1_reject_object(certificate.get(), OBJ_nid2obj(NID_server_auth)) == 1, "distrust");
    const BioPtr bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509_AUX(bio.get(), certificate.get());
    writeFile(freeTrustedPath(identity), textOf(bio.get()));
}

}  // namespace testsupport
