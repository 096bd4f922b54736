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

// Begins a name that no listing takes for a certificate; it also lacks the suffix.
constexpr std::string_view interruptedPrefix = ".installing-";

InstallFailure notStored(const std::string& path, const std::string& reason)
{
    return {InstallError::NotStored, path + ": " + reason};
}

// Folder by folder; the last one with `mode`.
void makeFolders(const std::string& folder, mode_t mode)
{
    for (std::size_t end = folder.find('/', 1); end != std::string::npos; end = folder.find('/', end + 1)) {
        const bool isLast = end + 1 == folder.size();
        if (mkdir(folder.substr(0, end).c_str(), isLast ? mode : 0755) != 0 && errno != EEXIST) {
            throw notStored(folder, wfoal::systemFault().reason);
        }
    }
}

// Makes `text` a file that exists whole or not at all.
void store(const std::string& folder, const std::string& name, const std::string& text)
{
    const UniqueFd opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened.valid()) throw notStored(folder, wfoal::systemFault().reason);
    const std::string aside = std::string(interruptedPrefix) + name.substr(0, name.find(certificateSuffix));
    const auto written = wfoal::writeDurably(opened.get(), name, aside, text);
    if (!written) throw notStored(folder + name, written.reason());
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
    try {
        installOrThrow(path, passphrase);
        return {};
    } catch (const InstallFailure& failure) {
        return {failure.error(), failure.what()};
    }
}

void CertificateStore::installOrThrow(const std::string& path, const std::string& passphrase) const
{
    const Bundle bundle = openBundle(readBundleFile(path), passphrase);
    makeFolders(mCertificateFolder, 0755);
    makeFolders(mKeyFolder, 0700);
    if (isInstalled(bundle.fingerprint)) {
        throw InstallFailure(InstallError::AlreadyInstalled, "the certificate is installed already");
    }
    const std::string name = bundle.fingerprint + certificateSuffix;
    const std::string keyName = keyPrefix + name;
    store(mKeyFolder, keyName, bundle.keyPem);
    try {
        store(mCertificateFolder, name, bundle.certificatePem);
    } catch (...) {  // also when memory runs out
        unlink((mKeyFolder + keyName).c_str());
        throw;
    }
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
