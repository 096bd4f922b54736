// SPDX-License-Identifier: Apache-2.0
#include "client/HandleKey.h"

#include <openssl/err.h>

#include <algorithm>

#include "CommandError.h"

using namespace vpnoalctl;

namespace sampleclient {

namespace {

// OpenSSL's request for the signature of a key that it does not have.
int signByHandle(int, const unsigned char* hash, unsigned int hashLength, unsigned char* signature,
                 unsigned int* signatureLength, const RSA* key)
{
    const auto* signer = static_cast<const HandleSigner*>(RSA_get_app_data(const_cast<RSA*>(key)));
    const Bytes made = signer->sign(hash, hashLength);
    if (made.empty() || made.size() > static_cast<std::size_t>(RSA_size(key))) return 0;
    std::copy(made.begin(), made.end(), signature);
    *signatureLength = static_cast<unsigned int>(made.size());
    return 1;
}

const RSA_METHOD* methodOfHandles()
{
    static const RsaMethodPtr method = [] {
        RsaMethodPtr made(RSA_meth_dup(RSA_PKCS1_OpenSSL()));
        if (made) RSA_meth_set_sign(made.get(), signByHandle);
        return made;
    }();
    return method.get();
}

}  // namespace

EvpPkeyPtr keyOfHandle(const HandleSigner& signer, X509* certificate)
{
    const RsaPtr shared(EVP_PKEY_get1_RSA(X509_get0_pubkey(certificate)));
    RsaPtr own(shared ? RSAPublicKey_dup(shared.get()) : nullptr);
    EvpPkeyPtr key(EVP_PKEY_new());
    ERR_clear_error();
    if (!own || !key || methodOfHandles() == nullptr) {
        throw CommandError("certificate", "it has no RSA key, and handles sign with no other", "choose another one");
    }
    RSA_set_method(own.get(), methodOfHandles());
    RSA_set_app_data(own.get(), const_cast<HandleSigner*>(&signer));
    EVP_PKEY_assign_RSA(key.get(), own.release());
    return key;
}

}  // namespace sampleclient
