// SPDX-License-Identifier: Apache-2.0
#include "Bundle.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "handles/OpenSsl.h"
#include "handles/Pkcs12Parts.h"
#include "handles/UniqueFd.h"
#include "io/WholeFile.h"

namespace certificatemanager {

namespace {

std::string textOf(BIO* bio)
{
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return length > 0 ? std::string(data, static_cast<std::size_t>(length)) : std::string();
}

std::string hexOf(const unsigned char* bytes, unsigned int length)
{
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0xf];
    }
    return text;
}

std::string fingerprintOf(X509* certificate)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (X509_digest(certificate, EVP_sha256(), digest, &length) != 1) return {};
    return hexOf(digest, length);
}

int refusePassword(char*, int, int, void*)
{
    return -1;
}

int noteEncryption(char*, int, int, void* isEncrypted)
{
    *static_cast<bool*>(isEncrypted) = true;
    return -1;
}

X509Ptr certificateOfPem(const std::string& pem)
{
    const BioPtr text(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    X509Ptr certificate(text ? PEM_read_bio_X509(text.get(), nullptr, refusePassword, nullptr) : nullptr);
    ERR_clear_error();
    return certificate;
}

InstallFailure failureOf(Pkcs12Fault fault, bool hasMac)
{
    switch (fault) {
    case Pkcs12Fault::WrongPassword: return {InstallError::WrongPassphrase, "the passphrase is wrong"};
    case Pkcs12Fault::TooManyIterations:
        return {InstallError::TooManyIterations, "the bundle asks for more than " +
                                                     std::to_string(largestPkcs12Iterations) +
                                                     " iterations of key derivation"};
    case Pkcs12Fault::None:
    case Pkcs12Fault::Undecodable: break;
    }
    if (hasMac) return {InstallError::NotPkcs12, "the bundle cannot be decoded"};
    return {InstallError::WrongPassphrase, "the bundle has no MAC and does not decrypt with the passphrase"};
}

}  // namespace

std::string readBundleFile(const std::string& path)
{
    const auto failed = [&path](InstallError error, const std::string& why) {
        return InstallFailure(error, path + ": " + why);
    };
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (!file.valid()) {
        if (errno == ELOOP) throw failed(InstallError::NotRegularFile, "is a symbolic link");
        throw failed(InstallError::Unreadable, std::strerror(errno));
    }
    struct stat status {};
    if (fstat(file.get(), &status) != 0) throw failed(InstallError::Unreadable, std::strerror(errno));
    if (!S_ISREG(status.st_mode)) throw failed(InstallError::NotRegularFile, "is not a regular file");

    // One byte more than is allowed, so that a file that grows meanwhile is noticed too.
    auto content = wfoal::readWhole(file.get(), largestBundle + 1);
    if (!content) throw failed(InstallError::Unreadable, content.reason());
    if (content->size() > largestBundle) throw failed(InstallError::TooLarge, "is larger than 1 MiB");
    return std::move(*content);
}

Bundle openBundle(const std::string& bytes, const std::string& passphrase)
{
    const auto* position = reinterpret_cast<const unsigned char*>(bytes.data());
    const Pkcs12Ptr parsed(d2i_PKCS12(nullptr, &position, static_cast<long>(bytes.size())));
    if (!parsed) throw InstallFailure(InstallError::NotPkcs12, "the file is not a PKCS#12 bundle");
    const bool hasMac = PKCS12_mac_present(parsed.get()) == 1;
    Pkcs12Parts parts;
    const Pkcs12Fault fault = takePkcs12Apart(parsed.get(), passphrase.c_str(), parts);
    ERR_clear_error();
    if (fault != Pkcs12Fault::None) throw failureOf(fault, hasMac);
    X509* const certificate = parts.certificate.get();
    EVP_PKEY* const key = parts.key.get();
    if (key == nullptr) throw InstallFailure(InstallError::NoKey, "the bundle holds no private key");
    if (certificate == nullptr) {
        throw InstallFailure(InstallError::NoCertificate, "the bundle holds no certificate for its key");
    }

    const BioPtr certificateText(BIO_new(BIO_s_mem()));
    const BioPtr keyText(BIO_new(BIO_s_secmem()));
    if (!certificateText || !keyText || PEM_write_bio_X509(certificateText.get(), certificate) != 1 ||
        PEM_write_bio_PrivateKey_traditional(keyText.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
        throw InstallFailure(InstallError::NotStored, "the bundle cannot be written as PEM");
    }
    Bundle bundle{textOf(certificateText.get()), textOf(keyText.get()), fingerprintOf(certificate)};
    if (bundle.fingerprint.empty()) {
        throw InstallFailure(InstallError::NotStored, "the certificate has no fingerprint");
    }
    return bundle;
}

std::string fingerprintOfPem(const std::string& pem)
{
    const X509Ptr certificate = certificateOfPem(pem);
    return certificate ? fingerprintOf(certificate.get()) : std::string();
}

bool isKeyOf(const std::string& certificatePem, const std::string& keyPem)
{
    const X509Ptr certificate = certificateOfPem(certificatePem);
    const BioPtr text(BIO_new_mem_buf(keyPem.data(), static_cast<int>(keyPem.size())));
    if (!certificate || !text) return false;
    bool isEncrypted = false;
    const EvpPkeyPtr key(PEM_read_bio_PrivateKey(text.get(), nullptr, noteEncryption, &isEncrypted));
    ERR_clear_error();
    if (!key) return isEncrypted;
    return matchKey(certificate.get(), key.get()) != KeyMatch::Different;
}

}  // namespace certificatemanager
