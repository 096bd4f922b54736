// SPDX-License-Identifier: Apache-2.0
//
// A small certificate authority for tests: certificates of every kind, good and bad, and the folders that the code
// under test reads them from. Keys are made once a process and reused by number.
#ifndef WFOAL_TEST_CERTIFICATEAUTHORITY_H
#define WFOAL_TEST_CERTIFICATEAUTHORITY_H

#include <string>
#include <vector>

#include "handles/OpenSsl.h"

namespace testsupport {

/// What a certificate says. Times are seconds from now.
struct CertificateOptions {
    std::string commonName;  // empty: none; may hold a NUL
    int keyNumber = 0;       // certificates of one number share a key
    bool isCa = false;
    std::string extendedKeyUsage = "serverAuth";  // empty: none
    long notBefore = -3600;
    long notAfter = 24L * 3600;
};

/// A certificate and its key.
struct Identity {
    X509Ptr certificate;
    EvpPkeyPtr key;

    std::vector<unsigned char> der() const;
    std::string pem() const;
    /// The key as PKCS#1 text, encrypted when a password is given.
    std::string keyPem(const char* password = nullptr) const;
    /// A PKCS#12 bundle; `cipher` is an NID, 0 for today's default.
    std::vector<unsigned char> pkcs12(const char* password, int cipher = 0,
                                      const std::vector<const Identity*>& others = {}) const;
};

/// Of the keys that are made from now on.
extern unsigned rsaKeyBits;

/// The key of this number. The first 16 of 2048 bits were made with the tests, and are the same in each process.
EvpPkeyPtr rsaKey(int number);

/// Issued by `issuer`, or self-signed when it is null.
Identity makeIdentity(const CertificateOptions& options, const Identity* issuer = nullptr);

/// Signs the certificate again after a test changed it.
void signAgain(X509* certificate, EVP_PKEY* issuerKey);

void writeFile(const std::string& path, const std::string& text);
void writeFile(const std::string& path, const std::vector<unsigned char>& bytes);

/// Puts a certificate into the trusted directory, under its hash, as OpenSSL looks for it.
void installTrusted(const Identity& identity);

/// The same, but the file says that the certificate is not trusted for servers.
void installDistrusted(const Identity& identity);

}  // namespace testsupport

#endif
