// SPDX-License-Identifier: Apache-2.0
//
// PKCS#12 bundles of any make: keys and certificates with any key ids in any order, any ciphers and iterations, with
// and without a MAC.
#ifndef WFOAL_TEST_BUNDLEMAKER_H
#define WFOAL_TEST_BUNDLEMAKER_H

#include <openssl/objects.h>

#include <cstdint>
#include <string>
#include <vector>

#include "CertificateAuthority.h"

namespace testsupport {

struct BundleOptions {
    int cipher = NID_aes_256_cbc;  // of key and certificates, or -1 for none
    bool hasMac = true;
    bool hidesKeys = false;   // in an encrypted part, as the certificates
    bool hasPassword = true;  // no password is another one than the empty password
    // What the bundle claims instead of the truth; such a bundle does not open.
    std::int64_t macIterations = 0;
    const X509_ALGOR* keyAlgorithm = nullptr;
    const X509_ALGOR* certificateAlgorithm = nullptr;
};

class BundleMaker {
public:
    BundleMaker(std::string password, BundleOptions options);
    explicit BundleMaker(std::string password) : BundleMaker(std::move(password), BundleOptions{}) {}

    /// Adds to what is in the bundle already. An empty id is none.
    BundleMaker& addKey(EVP_PKEY* key, const std::string& keyId = "");
    BundleMaker& addCertificate(X509* certificate, const std::string& keyId = "");
    std::vector<unsigned char> bytes() const;

private:
    const char* password() const { return mOptions.hasPassword ? mPassword.c_str() : nullptr; }

    std::string mPassword;
    BundleOptions mOptions;
    SafeBagStackPtr mKeys;
    SafeBagStackPtr mCertificates;
};

/// A certificate of a DSA key, issued by `issuer`, that leaves the key's parameters out.
Identity makeDsaIdentity(const std::string& commonName, const Identity& issuer);

}  // namespace testsupport

#endif
