// SPDX-License-Identifier: Apache-2.0
#include "certificates/CertificateFolder.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <set>

#include "CommandError.h"
#include "handles/UniqueFd.h"
#include "io/DurableFile.h"

namespace vpnoalctl {

namespace {

constexpr char runAsRoot[] = "run it as root";

std::string pathOf(const std::string& folder, const std::string& name)
{
    return folder + "/" + name;
}

X509Ptr firstCertificateOf(const std::string& path)
{
    const BioPtr file(BIO_new_file(path.c_str(), "r"));
    X509Ptr certificate(file ? PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr) : nullptr);
    ERR_clear_error();
    return certificate;
}

void removeFile(const std::string& path)
{
    if (unlink(path.c_str()) != 0 && errno != ENOENT) throw systemError(path, errno, runAsRoot);
}

bool isSame(const StoredCertificate& stored, X509* certificate)
{
    return X509_cmp(stored.certificate.get(), certificate) == 0;
}

std::string pemOf(X509* certificate)
{
    const BioPtr text(BIO_new(BIO_s_mem()));
    char* data = nullptr;
    if (!text || PEM_write_bio_X509(text.get(), certificate) != 1) throw std::bad_alloc();
    const long length = BIO_get_mem_data(text.get(), &data);
    return {data, static_cast<std::size_t>(length)};
}

// Names of certificates with this subject's hash are HASH.0, HASH.1 and so on, without a gap.
std::string freeName(X509* certificate)
{
    int isHashed = 0;
    const unsigned long hash = X509_NAME_hash_ex(X509_get_subject_name(certificate), nullptr, nullptr, &isHashed);
    if (isHashed == 0) throw CommandError("certificate", "its subject cannot be hashed", "free memory and try again");
    for (int number = 0;; ++number) {
        std::string name = fmt::format("{:08x}.{}", hash, number);
        struct stat status {};
        if (lstat(pathOf(trustedFolder, name).c_str(), &status) != 0) return name;
    }
}

}  // namespace

std::vector<StoredCertificate> certificatesIn(const std::string& folder)
{
    std::error_code error;
    std::set<std::string> names;
    std::filesystem::directory_iterator entries(folder, error);
    if (error == std::errc::no_such_file_or_directory) return {};
    if (error) throw systemError(folder, error.value(), runAsRoot);
    for (const auto& entry : entries)
        names.insert(entry.path().filename());
    std::vector<StoredCertificate> found;
    for (const std::string& name : names) {
        X509Ptr certificate = firstCertificateOf(pathOf(folder, name));
        if (certificate) found.push_back({name, std::move(certificate)});
    }
    return found;
}

bool installTrusted(X509* certificate)
{
    const auto trusted = certificatesIn(trustedFolder);
    const auto isIt = [certificate](const StoredCertificate& stored) { return isSame(stored, certificate); };
    if (std::any_of(trusted.begin(), trusted.end(), isIt)) return false;
    std::error_code error;
    std::filesystem::create_directories(trustedFolder, error);
    const UniqueFd folder(open(trustedFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.valid()) throw systemError(trustedFolder, errno, runAsRoot);
    const std::string name = freeName(certificate);
    const wfoal::Check check = wfoal::writeDurably(folder.get(), name, "." + name + ".new", pemOf(certificate));
    if (!check) throw CommandError(pathOf(trustedFolder, name), check.reason(), "run it as root, free the disk");
    // Every agent reads it; it holds nothing secret.
    if (fchmodat(folder.get(), name.c_str(), 0644, 0) != 0)
        throw systemError(pathOf(trustedFolder, name), errno, "make it readable for the agent");
    return true;
}

bool removeTrusted(X509* certificate)
{
    bool isRemoved = false;
    for (const StoredCertificate& stored : certificatesIn(trustedFolder)) {
        if (!isSame(stored, certificate)) continue;
        removeFile(pathOf(trustedFolder, stored.name));
        isRemoved = true;
    }
    return isRemoved;
}

void removeClient(X509* certificate)
{
    bool isRemoved = false;
    for (const StoredCertificate& stored : certificatesIn(clientFolder)) {
        if (!isSame(stored, certificate)) continue;
        removeFile(pathOf(keyFolder, "rsa" + stored.name));
        removeFile(pathOf(clientFolder, stored.name));
        isRemoved = true;
    }
    if (!isRemoved) throw CommandError(clientFolder, "the certificate's file is gone", "list them again");
}

}  // namespace vpnoalctl
