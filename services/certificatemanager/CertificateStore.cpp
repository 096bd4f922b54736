// SPDX-License-Identifier: Apache-2.0
#include "CertificateStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "Bundle.h"
#include "handles/Stdio.h"
#include "handles/UniqueFd.h"
#include "io/DurableFile.h"
#include "io/WholeFile.h"

namespace certificatemanager {

namespace {

constexpr char certificateSuffix[] = ".pem";
constexpr char keyPrefix[] = "rsa";

// Begins a name that no listing takes for a certificate.
constexpr std::string_view interruptedPrefix = ".installing-";

// Folder by folder; the last one with `mode`.
bool makeFolders(const std::string& folder, mode_t mode)
{
    for (std::size_t end = folder.find('/', 1); end != std::string::npos; end = folder.find('/', end + 1)) {
        const bool isLast = end + 1 == folder.size();
        if (mkdir(folder.substr(0, end).c_str(), isLast ? mode : 0755) != 0 && errno != EEXIST) return false;
    }
    return true;
}

InstallResult notStored(const std::string& path, const std::string& reason)
{
    return {InstallError::NotStored, path + ": " + reason};
}

// Makes `text` a file that exists whole or not at all.
InstallResult store(const std::string& folder, const std::string& name, const std::string& text)
{
    const UniqueFd opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened.valid()) return notStored(folder, wfoal::systemFault().reason);
    const auto written = wfoal::writeDurably(opened.get(), name, std::string(interruptedPrefix) + name, text);
    return written ? InstallResult() : notStored(folder + name, written.reason());
}

unsigned removeInterrupted(const std::string& folder)
{
    const DirPtr directory(opendir(folder.c_str()));
    if (!directory) return 0;
    unsigned removed = 0;
    while (const dirent* entry = readdir(directory.get())) {
        if (std::string_view(entry->d_name).substr(0, interruptedPrefix.size()) != interruptedPrefix) continue;
        if (unlinkat(dirfd(directory.get()), entry->d_name, 0) == 0) ++removed;
    }
    return removed;
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

    if (!makeFolders(mCertificateFolder, 0755)) return notStored(mCertificateFolder, wfoal::systemFault().reason);
    if (!makeFolders(mKeyFolder, 0700)) return notStored(mKeyFolder, wfoal::systemFault().reason);
    if (isInstalled(bundle.fingerprint))
        return {InstallError::AlreadyInstalled, "the certificate is installed already"};

    const std::string name = bundle.fingerprint + certificateSuffix;
    const std::string keyName = keyPrefix + name;
    result = store(mKeyFolder, keyName, bundle.keyPem);
    if (result.error != InstallError::None) return result;
    result = store(mCertificateFolder, name, bundle.certificatePem);
    if (result.error != InstallError::None) unlink((mKeyFolder + keyName).c_str());
    return result;
}

unsigned CertificateStore::removeInterruptedInstallations() const
{
    return removeInterrupted(mCertificateFolder) + removeInterrupted(mKeyFolder);
}

// Under any name, but only with its key: a certificate without its key is useless, and may be installed again.
bool CertificateStore::isInstalled(const std::string& fingerprint) const
{
    const DirPtr folder(opendir(mCertificateFolder.c_str()));
    if (!folder) return false;
    while (const dirent* entry = readdir(folder.get())) {
        const std::string name = entry->d_name;
        if (name.find(certificateSuffix) == std::string::npos) continue;
        const auto certificate = wfoal::readWhole(mCertificateFolder + name);
        if (!certificate || fingerprintOfPem(*certificate) != fingerprint) continue;
        const auto key = wfoal::readWhole(mKeyFolder + keyPrefix + name);
        if (key && isKeyOf(*certificate, *key)) return true;
    }
    return false;
}

}  // namespace certificatemanager
