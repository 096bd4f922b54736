// SPDX-License-Identifier: Apache-2.0
//
// Installs a PKCS#12 bundle as the PEM files that the plug-in lists: the key first, then the certificate. Each gets its
// name when it is written and synced, so that a certificate never stands there without its key, nor half a file. Knows
// nothing of the bus. Used on one thread.
#ifndef CERTIFICATESTORE_H
#define CERTIFICATESTORE_H

#include <string>

namespace certificatemanager {

/// Why an installation failed; the numbers are what callers of the service see.
enum class InstallError : int {
    None = 0,
    BadRequest = 1,
    NotPermitted = 2,
    Unreadable = 3,
    NotRegularFile = 4,
    TooLarge = 5,
    NotPkcs12 = 6,
    WrongPassphrase = 7,
    NoKey = 8,
    NoCertificate = 9,
    AlreadyInstalled = 10,
    NotStored = 11,
    TooManyIterations = 12,
};

struct InstallResult {
    InstallError error = InstallError::None;
    std::string text;  ///< What went wrong, for people; empty on success.
};

class CertificateStore {
public:
    /// Folders with a trailing slash; made when they are missing.
    CertificateStore(std::string certificateFolder, std::string keyFolder);

    /// Installs the bundle in file `path`. On failure nothing is left behind.
    InstallResult install(const std::string& path, const std::string& passphrase) const;

    /// Removes the files of installations that were killed. Returns how many. Only the one service may call it.
    unsigned removeInterruptedInstallations() const;

private:
    bool isInstalled(const std::string& fingerprint) const;

    std::string mCertificateFolder;
    std::string mKeyFolder;
};

}  // namespace certificatemanager

#endif
