// SPDX-License-Identifier: Apache-2.0
//
// Owners of OpenSSL objects.
#ifndef HANDLES_OPENSSL_H
#define HANDLES_OPENSSL_H

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <memory>

/// Deleter made of an OpenSSL release function.
template <typename T, void (*Release)(T*)>
struct OpenSslReleaser {
    void operator()(T* object) const { Release(object); }
};

template <typename T, void (*Release)(T*)>
using OpenSslPtr = std::unique_ptr<T, OpenSslReleaser<T, Release>>;

using X509Ptr = OpenSslPtr<X509, X509_free>;
using X509StorePtr = OpenSslPtr<X509_STORE, X509_STORE_free>;
using X509StoreCtxPtr = OpenSslPtr<X509_STORE_CTX, X509_STORE_CTX_free>;
using X509ObjectPtr = OpenSslPtr<X509_OBJECT, X509_OBJECT_free>;
using X509InfoPtr = OpenSslPtr<X509_INFO, X509_INFO_free>;
using EvpPkeyPtr = OpenSslPtr<EVP_PKEY, EVP_PKEY_free>;
using RsaPtr = OpenSslPtr<RSA, RSA_free>;
using Pkcs12Ptr = OpenSslPtr<PKCS12, PKCS12_free>;
using Pbe2ParametersPtr = OpenSslPtr<PBE2PARAM, PBE2PARAM_free>;
using PbeParametersPtr = OpenSslPtr<PBEPARAM, PBEPARAM_free>;
using Pbkdf2ParametersPtr = OpenSslPtr<PBKDF2PARAM, PBKDF2PARAM_free>;
using ScryptParametersPtr = OpenSslPtr<SCRYPT_PARAMS, SCRYPT_PARAMS_free>;
using BioPtr = OpenSslPtr<BIO, BIO_free_all>;

/// A stack of certificates with the certificates in it.
struct X509StackReleaser {
    void operator()(STACK_OF(X509) * stack) const { sk_X509_pop_free(stack, X509_free); }
};
using X509StackPtr = std::unique_ptr<STACK_OF(X509), X509StackReleaser>;

struct X509InfoStackReleaser {
    void operator()(STACK_OF(X509_INFO) * stack) const { sk_X509_INFO_pop_free(stack, X509_INFO_free); }
};
using X509InfoStackPtr = std::unique_ptr<STACK_OF(X509_INFO), X509InfoStackReleaser>;

struct Pkcs7StackReleaser {
    void operator()(STACK_OF(PKCS7) * stack) const { sk_PKCS7_pop_free(stack, PKCS7_free); }
};
using Pkcs7StackPtr = std::unique_ptr<STACK_OF(PKCS7), Pkcs7StackReleaser>;

struct SafeBagStackReleaser {
    void operator()(STACK_OF(PKCS12_SAFEBAG) * stack) const { sk_PKCS12_SAFEBAG_pop_free(stack, PKCS12_SAFEBAG_free); }
};
using SafeBagStackPtr = std::unique_ptr<STACK_OF(PKCS12_SAFEBAG), SafeBagStackReleaser>;

struct ProviderReleaser {
    void operator()(OSSL_PROVIDER* provider) const { OSSL_PROVIDER_unload(provider); }
};
using ProviderPtr = std::unique_ptr<OSSL_PROVIDER, ProviderReleaser>;

#endif
