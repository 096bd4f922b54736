// SPDX-License-Identifier: Apache-2.0
#include "certificates/CertificateFile.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include "CommandError.h"
#include "io/WholeFile.h"

namespace vpnoalctl {

namespace {

constexpr std::size_t largestCertificateFile = std::size_t{1} << 20;

std::string textOf(BIO* bio)
{
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return length > 0 ? std::string(data, static_cast<std::size_t>(length)) : std::string();
}

std::string nameText(const X509_NAME* name)
{
    const BioPtr text(BIO_new(BIO_s_mem()));
    X509_NAME_print_ex(text.get(), name, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB);
    return textOf(text.get());
}

std::string timeText(const ASN1_TIME* time)
{
    const BioPtr text(BIO_new(BIO_s_mem()));
    if (ASN1_TIME_print(text.get(), time) != 1) return "unreadable";
    return textOf(text.get());
}

}  // namespace

Bytes readWholeFile(const std::string& path, std::size_t limit)
{
    const auto content = wfoal::readWhole(path, limit + 1);
    if (!content) throw badInput(path, content.reason(), "check the path and its permissions");
    if (content->size() > limit) throw badInput(path, "the file is larger than " + std::to_string(limit) + " bytes");
    return {content->begin(), content->end()};
}

std::string readPasswordFile(const std::string& path)
{
    constexpr std::size_t longestPassword = 1024;
    const Bytes bytes = readWholeFile(path, longestPassword);
    const std::string text(bytes.begin(), bytes.end());
    return text.substr(0, text.find('\n'));
}

Bytes loadCertificate(const std::string& path)
{
    const Bytes bytes = readWholeFile(path, largestCertificateFile);
    const BioPtr text(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
    const auto noPassword = [](char*, int, int, void*) { return -1; };
    const X509Ptr fromPem(text ? PEM_read_bio_X509(text.get(), nullptr, noPassword, nullptr) : nullptr);
    ERR_clear_error();
    return fromPem ? derOf(fromPem.get()) : derOf(parseCertificate(bytes, path).get());
}

Bytes derOf(X509* certificate)
{
    Bytes der(static_cast<std::size_t>(i2d_X509(certificate, nullptr)));
    unsigned char* end = der.data();
    i2d_X509(certificate, &end);
    return der;
}

X509Ptr parseCertificate(const Bytes& der, const std::string& what)
{
    const unsigned char* position = der.data();
    X509Ptr certificate(d2i_X509(nullptr, &position, static_cast<long>(der.size())));
    ERR_clear_error();
    if (!certificate) throw badInput(what, "is no certificate", "give a PEM or DER file");
    return certificate;
}

std::string toHex(const unsigned char* bytes, std::size_t length)
{
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < length; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0xf];
    }
    return text;
}

CertificateSummary summarize(X509* certificate)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    X509_digest(certificate, EVP_sha256(), digest, &length);
    return {nameText(X509_get_subject_name(certificate)), nameText(X509_get_issuer_name(certificate)),
            timeText(X509_get0_notBefore(certificate)), timeText(X509_get0_notAfter(certificate)),
            toHex(digest, length)};
}

}  // namespace vpnoalctl
