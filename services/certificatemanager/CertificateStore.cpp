// SPDX-License-Identifier: Apache-2.0
#include "CertificateStore.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "Bundle.h"
#include "DurableFile.h"
#include "handles/Stdio.h"

namespace certificatemanager {

namespace {

constexpr char certificateSuffix[] = ".pem";
constexpr char keyPrefix[] = "rsa";

std::string textOfFile(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// Folder by folder; the last one with `mode`.
bool makeFolders(const std::string& folder, mode_t mode)
{
    for (std::size_t end = folder.find('/', 1); end != std::string::npos; end = folder.find('/', end + 1)) {
        const bool isLast = end + 1 == folder.size();
        if (mkdir(folder.substr(0, end).c_str(), isLast ? mode : 0755) != 0 && errno != EEXIST) return false;
    }
    return true;
}

InstallResult notStored(const std::string& path)
{
    return {InstallError::NotStored, path + ": " + std::strerror(errno)};
}

}  // namespace

CertificateStore::CertificateStore(std::string certificateFolder, std::string keyFolder)
    : mCertificateFolder(std::move(certificateFolder)), mKeyFolder(std::move(keyFolder))
{
}

InstallResult CertificateStore::install(const std::string& path, const std::string& passphrase) const
{
    std::vector<unsigned char> bytes;
    InstallResult result = readBundleFile(path, bytes);
    if (result.error != InstallError::None) return result;
    Bundle bundle;
    result = openBundle(bytes, passphrase, bundle);
    if (result.error != InstallError::None) return result;

    if (!makeFolders(mCertificateFolder, 0755)) return notStored(mCertificateFolder);
    if (!makeFolders(mKeyFolder, 0700)) return notStored(mKeyFolder);
    if (isInstalled(bundle.fingerprint))
        return {InstallError::AlreadyInstalled, "the certificate is installed already"};

    const std::string name = bundle.fingerprint + certificateSuffix;
    const std::string keyName = keyPrefix + name;
    if (!writeDurably(mKeyFolder, keyName, bundle.keyPem)) return notStored(mKeyFolder + keyName);
    if (!writeDurably(mCertificateFolder, name, bundle.certificatePem)) {
        result = notStored(mCertificateFolder + name);
        unlink((mKeyFolder + keyName).c_str());
        return result;
    }
    return {};
}

unsigned CertificateStore::removeInterruptedInstallations() const
{
    return removeInterrupted(mCertificateFolder) + removeInterrupted(mKeyFolder);
}

// Under whatever name it was installed, but only with its key: a certificate without one, or with another's, is of no
// use to anybody.
bool CertificateStore::isInstalled(const std::string& fingerprint) const
{
    const DirPtr folder(opendir(mCertificateFolder.c_str()));
    if (!folder) return false;
    while (const dirent* entry = readdir(folder.get())) {
        const std::string name = entry->d_name;
        if (name.find(certificateSuffix) == std::string::npos) continue;
        const std::string certificate = textOfFile(mCertificateFolder + name);
        if (fingerprintOfPem(certificate) != fingerprint) continue;
        if (isKeyOf(certificate, textOfFile(mKeyFolder + keyPrefix + name))) return true;
    }
    return false;
}

}  // namespace certificatemanager
