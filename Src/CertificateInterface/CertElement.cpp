// SPDX-License-Identifier: Apache-2.0
#include "CertElement.h"

#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>

#include <new>

#include "ErrorQueueGuard.h"
#include "Log.h"
#include "PemPassword.h"
#include "handles/Pkcs12Parts.h"
#include "handles/Stdio.h"

namespace {

constexpr char signFunction[] = "SignSSL";

// MD5 and SHA-1 side by side, as TLS 1.0 and 1.1 sign: padded without a digest identifier.
bool signHash(RSA* key, const unsigned char* hash, unsigned int hashLength, unsigned char* signature,
              unsigned int& signatureLength)
{
    if (RSA_sign(NID_md5_sha1, hash, hashLength, signature, &signatureLength, key) == 1) return true;
    WFOAL_ERROR("%s: error: RSA_sign failed to sign hash", signFunction);
    return false;
}

bool belongTogether(X509* certificate, EVP_PKEY* key)
{
    if (X509_check_private_key(certificate, key) == 1) return true;
    WFOAL_ERROR("%s: X509_check_private_key", signFunction);
    return false;
}

RsaPtr readKeyFile(const std::string& path, const char* password)
{
    const FilePtr file(std::fopen(path.c_str(), "re"));
    if (!file) {
        WFOAL_ERROR("%s: Could not read private key file: %s. Please check file permissions.", signFunction,
                    path.c_str());
        return nullptr;
    }
    RsaPtr key(PEM_read_RSAPrivateKey(file.get(), nullptr, wfoal::givenPassword, const_cast<char*>(password)));
    if (!key) {
        WFOAL_ERROR("%s: error: PEM_read_RSAPrivateKey cannot RSA private key from file: %s", signFunction,
                    path.c_str());
    }
    return key;
}

// False leaves the key with its owner.
bool assignKey(EVP_PKEY* holder, RsaPtr& key)
{
    if (EVP_PKEY_assign(holder, EVP_PKEY_RSA, key.get()) != 1) {
        WFOAL_ERROR("%s:  EVP_PKEY_assign_RSA- Could not copy rKey to pKey", signFunction);
        return false;
    }
    static_cast<void>(key.release());  // the holder's now
    return true;
}

}  // namespace

CertElement::CertElement(X509* certificate, const std::string& keyFile)
{
    const wfoal::ErrorQueueGuard queueGuard;
    WFOAL_DEBUG("%s: New CertElement %p constructed x509(%p) privKey(%s)", __func__, static_cast<void*>(this),
                static_cast<void*>(certificate), keyFile.c_str());
    if (!X509ToDER(certificate, derLength, der)) {
        WFOAL_ERROR("%s: error: Construction from X509 failed", __func__);
        throw "error: Construction from X509 failed";
    }
    privKeyFile = keyFile;
}

CertElement::CertElement(const std::string& pkcs12FileName, const std::string& password)
{
    const wfoal::ErrorQueueGuard queueGuard;
    WFOAL_DEBUG("%s: New CertElement %p constructed pkcs12fn(%s) privKeyPw(%s)", __func__, static_cast<void*>(this),
                pkcs12FileName.c_str(), password.c_str());
    Pkcs12Ptr bundle;
    if (const FilePtr file{std::fopen(pkcs12FileName.c_str(), "rbe")}) bundle.reset(d2i_PKCS12_fp(file.get(), nullptr));
    if (!bundle || !Pkcs12ToDER(bundle.get(), password, derLength, der)) {
        WFOAL_ERROR("%s: error: Construction from Pkcs12 failed", __func__);
        throw "error: Construction from Pkcs12 failed";
    }
}

CertElement::~CertElement()
{
    WFOAL_DEBUG("%s: CertElement %p deleted", __func__, static_cast<void*>(this));
}

PluginResult CertElement::GetCertDer(unsigned int& length, unsigned char*& data)
{
    length = derLength;
    data = der.get();
    return PLUGIN_SUCCESS;
}

bool CertElement::X509ToDER(X509* certificate, unsigned int& length, DerBytes& bytes)
{
    if (certificate == nullptr) return false;
    const int size = i2d_X509(certificate, nullptr);
    if (size <= 0) {
        WFOAL_ERROR("%s: error i2d_X509- cannot convert X509 object to DER", __func__);
        return false;
    }
    length = static_cast<unsigned int>(size);
    bytes.reset(new (std::nothrow) unsigned char[length]);
    if (!bytes) {
        WFOAL_ERROR("%s: error: out of memory", __func__);
        return false;
    }
    unsigned char* end = bytes.get();
    if (i2d_X509(certificate, &end) == size) return true;
    bytes.reset();
    WFOAL_ERROR("%s: error i2d_X509 failed", __func__);
    return false;
}

bool CertElement::Pkcs12ToDER(PKCS12* bundle, const std::string& password, unsigned int& length, DerBytes& bytes)
{
    WFOAL_DEBUG("%s", __func__);
    Pkcs12Parts parts;
    const Pkcs12Fault fault = takePkcs12Apart(bundle, password.c_str(), parts);
    if (fault != Pkcs12Fault::None) {
        WFOAL_ERROR(
            "%s: PKCS12_parse Failed %s", __func__,
            fault == Pkcs12Fault::TooManyIterations ? "too many iterations" : ERR_reason_error_string(ERR_get_error()));
        return false;
    }
    privKey = std::move(parts.key);
    return privKey && X509ToDER(parts.certificate.get(), length, bytes);
}

X509* CertElement::decodedCertificate()
{
    if (!decoded) {
        const BioPtr bytes(BIO_new_mem_buf(der.get(), static_cast<int>(derLength)));
        if (bytes) decoded.reset(d2i_X509_bio(bytes.get(), nullptr));
    }
    return decoded.get();
}

PluginResult CertElement::SignSSL(const unsigned char* hash, unsigned int hashLength, unsigned char*& signature,
                                  unsigned int& signatureLength, const char* keyPassword)
{
    const wfoal::ErrorQueueGuard queueGuard;
    WFOAL_DEBUG("%s: called %p", __func__, static_cast<void*>(this));
    if (hash == nullptr || signature == nullptr) return PLUGIN_FAILURE;
    X509* const certificate = decodedCertificate();
    if (certificate == nullptr) {
        WFOAL_ERROR("%s: error: cannot convert client cert DER to X509 object", __func__);
        return PLUGIN_FAILURE;
    }
    const bool isSigned = privKeyFile.empty()
                              ? signWithKey(certificate, hash, hashLength, signature, signatureLength)
                              : signWithKeyFile(certificate, hash, hashLength, signature, signatureLength, keyPassword);
    return isSigned ? PLUGIN_SUCCESS : PLUGIN_FAILURE;
}

// The key file is read for every signature: nothing of the key stays in memory.
bool CertElement::signWithKeyFile(X509* certificate, const unsigned char* hash, unsigned int hashLength,
                                  unsigned char* signature, unsigned int& signatureLength,
                                  const char* keyPassword) const
{
    const EvpPkeyPtr holder(EVP_PKEY_new());
    if (!holder) WFOAL_ERROR("%s: Failed to create EVP_PKEY object.", signFunction);
    RsaPtr key = readKeyFile(privKeyFile, keyPassword);
    RSA* const borrowed = key.get();
    return key && assignKey(holder.get(), key) && belongTogether(certificate, holder.get()) &&
           signHash(borrowed, hash, hashLength, signature, signatureLength);
}

bool CertElement::signWithKey(X509* certificate, const unsigned char* hash, unsigned int hashLength,
                              unsigned char* signature, unsigned int& signatureLength) const
{
    if (!belongTogether(certificate, privKey.get())) return false;
    const RsaPtr key(EVP_PKEY_get1_RSA(privKey.get()));
    if (!key) {
        WFOAL_ERROR("%s: error: EVP_PKEY_get1_RSA cannot EVP to RSA private key", signFunction);
        return false;
    }
    return signHash(key.get(), hash, hashLength, signature, signatureLength);
}
