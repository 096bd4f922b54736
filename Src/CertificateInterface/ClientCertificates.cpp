// SPDX-License-Identifier: Apache-2.0
//
// The user's certificates: PEM files, each paired by name with a key file.
#include <openssl/pem.h>
#include <sys/stat.h>

#include <cstring>
#include <new>

#include "CertElement.h"
#include "CertificateInterface.h"
#include "ErrorQueueGuard.h"
#include "Log.h"
#include "PemPassword.h"
#include "handles/Stdio.h"

namespace {

constexpr char certificateDirectory[] = "/var/ssl/certs/";
constexpr char privateKeyPrefix[] = "/var/ssl/private/rsa";
constexpr char enumerateFunction[] = "EnumerateClientCerts";

// Anywhere in the name: a renamed backup still counts.
bool isCertificateFileName(const char* name)
{
    return std::strstr(name, ".pem") != nullptr;
}

X509Ptr readCertificate(const std::string& path)
{
    const FilePtr file(std::fopen(path.c_str(), "re"));
    if (!file) {
        WFOAL_ERROR("%s: could not read client cert: %s", enumerateFunction, path.c_str());
        return nullptr;
    }
    X509Ptr certificate(PEM_read_X509(file.get(), nullptr, wfoal::noPassword, nullptr));
    if (!certificate) {
        WFOAL_ERROR("%s: could not convert %s to X509 Certificate", enumerateFunction, path.c_str());
    }
    return certificate;
}

// The certificate of a directory entry; null when it is none or has no key file. Whether the key fits is checked when
// it is used.
X509Ptr usableCertificate(const char* name, std::string& keyPath)
try {
    if (!isCertificateFileName(name)) return nullptr;
    const std::string path = std::string(certificateDirectory) + name;
    keyPath = std::string(privateKeyPrefix) + name;
    struct stat status {};
    if (stat(keyPath.c_str(), &status) != 0) {
        WFOAL_WARNING("%s: missing private key %s for cert file %s", enumerateFunction, keyPath.c_str(), path.c_str());
        return nullptr;
    }
    WFOAL_DEBUG("%s: KeyFile Path: %s", enumerateFunction, keyPath.c_str());
    return readCertificate(path);
} catch (const std::bad_alloc&) {
    WFOAL_ERROR("%s: error: out of memory", enumerateFunction);
    return nullptr;
}

ClientCertHandle* makeHandle(X509* certificate, const std::string& keyPath)
{
    try {
        return new CertElement(certificate, keyPath);
    } catch (const char* reason) {
        WFOAL_ERROR("%s: skipping the certificate of key %s: %s", enumerateFunction, keyPath.c_str(), reason);
        return nullptr;
    } catch (const std::bad_alloc&) {
        WFOAL_ERROR("%s: error: out of memory", enumerateFunction);
        return nullptr;
    }
}

}  // namespace

PluginResult CertificateInterface::EnumerateClientCerts(unsigned int& count, ClientCertHandle** handles)
{
    const wfoal::ErrorQueueGuard queueGuard;
    WFOAL_DEBUG("CertificateInterface::%s: Called!", __func__);
    if (handles != nullptr && count == 0) {
        WFOAL_ERROR("%s: A buffer was provided but its length is 0", __func__);
        return PLUGIN_FAILURE;
    }
    const DirPtr directory(opendir(certificateDirectory));
    if (!directory) {
        WFOAL_ERROR("%s: could not open client dir: %s", __func__, certificateDirectory);
        return PLUGIN_FAILURE;
    }
    unsigned int found = 0;
    while (handles == nullptr || found < count) {
        const dirent* entry = readdir(directory.get());
        if (entry == nullptr) break;
        std::string keyPath;
        const X509Ptr certificate = usableCertificate(entry->d_name, keyPath);
        if (!certificate) continue;
        if (handles != nullptr) {
            ClientCertHandle* handle = makeHandle(certificate.get(), keyPath);
            if (handle == nullptr) continue;
            handles[found] = handle;
        }
        ++found;
    }
    count = found;
    if (found == 0) WFOAL_INFO("%s: no certificates found in %s", __func__, certificateDirectory);
    return PLUGIN_SUCCESS;
}

PluginResult CertificateInterface::DisposeClientCertHandle(ClientCertHandle* handle)
{
    WFOAL_DEBUG("CertificateInterface::%s Called!", __func__);
    delete handle;
    return PLUGIN_SUCCESS;
}
