// SPDX-License-Identifier: Apache-2.0
//
// Reads a PKCS#12 bundle and converts it to the two PEM texts that are installed.
#ifndef CERTIFICATEMANAGER_BUNDLE_H
#define CERTIFICATEMANAGER_BUNDLE_H

#include <string>

#include "CertificateStore.h"

namespace certificatemanager {

constexpr std::size_t largestBundle = std::size_t{1024} * 1024;

struct Bundle {
    std::string certificatePem;
    std::string keyPem;
    std::string fingerprint;  ///< SHA-256 of the certificate in lower-case hex.
};

/// Reads a regular file of at most largestBundle bytes. Never blocks on a pipe and never follows a link at the end.
/// Throws an InstallFailure.
std::string readBundleFile(const std::string& path);

/// Throws an InstallFailure.
Bundle openBundle(const std::string& bytes, const std::string& passphrase);

/// Fingerprint of the first certificate of a PEM text; empty when there is none.
std::string fingerprintOfPem(const std::string& pem);

/// Both are PEM texts. False when the key belongs to another certificate, or is no key. An encrypted key cannot be
/// checked, and counts as the right one.
bool isKeyOf(const std::string& certificatePem, const std::string& keyPem);

}  // namespace certificatemanager

#endif
