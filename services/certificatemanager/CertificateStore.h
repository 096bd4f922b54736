// SPDX-License-Identifier: Apache-2.0
//
// Installs a PKCS#12 bundle as the PEM files that the plug-in lists: the key first, then the certificate. Each gets its
// name when it is written and synced, so there is never a certificate without its key, nor half a file. Knows nothing
// of the bus. Used on one thread.
#ifndef CERTIFICATEMANAGER_CERTIFICATESTORE_H
#define CERTIFICATEMANAGER_CERTIFICATESTORE_H

#include <stdexcept>
#include <string>

namespace certificatemanager {

/// Why an installation failed. Callers of the service see the numbers.
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
    std::string text;  ///< The error in words; empty on success.
};

/// A failed step of an installation, inside the service.
class InstallFailure : public std::runtime_error {
public:
    InstallFailure(InstallError error, const std::string& text) : std::runtime_error(text), mError(error) {}
    InstallError error() const { return mError; }

private:
    InstallError mError;
};

class CertificateStore {
public:
    /// Folders with a trailing slash. Missing ones are made.
    CertificateStore(std::string certificateFolder, std::string keyFolder);

    /// Installs the bundle in the file `path`. A failure leaves no new file.
    InstallResult install(const std::string& path, const std::string& passphrase) const;

    /// Removes the files of killed installations, and returns how many there were. No other process may install now.
    unsigned removeInterruptedInstallations() const;

private:
    void installOrThrow(const std::string& path, const std::string& passphrase) const;
    bool isInstalled(const std::string& fingerprint) const;

    std::string mCertificateFolder;
    std::string mKeyFolder;
};

}  // namespace certificatemanager

#endif
