// SPDX-License-Identifier: Apache-2.0
//
// Judging the gateway's certificate: accept, ask the user, or refuse. Trust comes from the installed directory alone;
// what the agent collected serves as intermediates only, for one verification.
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>
#include <strings.h>
#include <sys/stat.h>

#include <array>
#include <cstring>

#include "CertificateInterface.h"
#include "ChainCheck.h"
#include "ChainVerdict.h"
#include "ErrorQueueGuard.h"
#include "Log.h"
#include "OpenSslBinding.h"
#include "PemPassword.h"

namespace {

constexpr char trustedDirectory[] = "/var/ssl/trustedcerts/";
constexpr char verifyFunction[] = "VerifyServerCertificate";

using NameBuffer = std::array<char, 256>;

// Check that the directory exists, because OpenSSL accepts one that does not. The path ends with a slash, so that
// stat() finds nothing but a directory.
bool loadTrustedDirectory(X509_STORE* store)
{
    struct stat status {};
    const bool isThere = stat(trustedDirectory, &status) == 0;
    return X509_STORE_load_locations(store, nullptr, trustedDirectory) == 1 && isThere;
}

// Refuse to judge by functions that are not all of one OpenSSL. Looking at thousands of references takes a tenth of a
// millisecond; what is bound stays bound, so once is enough.
bool isOpenSslWhole()
{
    static const wfoal::ForeignFunction foreign = wfoal::findForeignOpenSslFunction();
    if (foreign.name == nullptr) return true;
    WFOAL_ERROR("%s: OpenSSL's %s is replaced by that of %s, no certificate is accepted", verifyFunction, foreign.name,
                foreign.object);
    return false;
}

PluginResult resultOfChain(int error, bool& promptUser)
{
    using wfoal::ChainVerdict;
    const wfoal::ChainVerdict verdict = wfoal::chainVerdict(error);
    promptUser = verdict == ChainVerdict::AskUser;
    switch (verdict) {
    case ChainVerdict::AskUser:
        WFOAL_ERROR("%s: Prompt User... Server Certificate Warning: %i %s", verifyFunction, error,
                    X509_verify_cert_error_string(error));
        return PLUGIN_SUCCESS;
    case ChainVerdict::SelfSignedInChain:
        WFOAL_DEBUG("%s: self signed cert in chain", verifyFunction);
        return PLUGIN_SUCCESS;
    case ChainVerdict::SelfSignedServer:
        WFOAL_DEBUG("%s: zero depth self signed cert", verifyFunction);
        return PLUGIN_SUCCESS;
    case ChainVerdict::Refuse: break;
    }
    WFOAL_ERROR("%s: Server Certificate verification failed: %s", verifyFunction, X509_verify_cert_error_string(error));
    return PLUGIN_FAILURE;
}

bool isWithinValidity(X509* certificate)
{
    constexpr int past = -1;
    constexpr int future = 1;
    const int notBefore = X509_cmp_current_time(X509_get0_notBefore(certificate));
    const int notAfter = X509_cmp_current_time(X509_get0_notAfter(certificate));
    if (notBefore == 0 || notAfter == 0) {
        WFOAL_ERROR("%s: Error while comparing ceritifcate validity times. notBefore(%d), notAfter(%d)", verifyFunction,
                    notBefore, notAfter);
        return false;
    }
    if (notBefore == future || notAfter == past) {
        WFOAL_ERROR("%s: Server Certificate Expired. notBefore(%d), notAfter(%d)", verifyFunction, notBefore, notAfter);
        return false;
    }
    return true;
}

using NameLine = std::array<char, 1024>;

NameLine oneLine(const X509_NAME* name)
{
    NameLine line{};
    X509_NAME_oneline(name, line.data(), static_cast<int>(line.size()));
    return line;
}

// A common name, which the subject must have, with an embedded NUL never matches.
bool hasNulInCommonName(const X509_NAME* subject)
{
    const X509_NAME_ENTRY* entry =
        X509_NAME_get_entry(subject, X509_NAME_get_index_by_NID(subject, NID_commonName, -1));
    const ASN1_STRING* text = X509_NAME_ENTRY_get_data(entry);
    return std::memchr(ASN1_STRING_get0_data(text), '\0', static_cast<std::size_t>(ASN1_STRING_length(text))) !=
           nullptr;
}

// The checks of store and name for a chain that did not verify. `result` is the outcome of the chain.
PluginResult resultOfName(X509* certificate, bool isInstalled, const char* serverName, PluginResult result,
                          bool& promptUser)
{
    NameBuffer commonName{};
    X509_NAME* subject = X509_get_subject_name(certificate);
    const int length =
        X509_NAME_get_text_by_NID(subject, NID_commonName, commonName.data(), static_cast<int>(commonName.size()));
    if (length <= 0) {
        WFOAL_ERROR("%s: unable to retrieve server name from certificate", verifyFunction);
        return PLUGIN_FAILURE;
    }
    WFOAL_DEBUG("%s verifying server name: %s", verifyFunction, oneLine(subject).data());
    if (!isInstalled) {
        WFOAL_DEBUG("%s: Matching Certificate not found in store", verifyFunction);
        promptUser = true;
        return PLUGIN_SUCCESS;
    }
    commonName.back() = '\0';
    WFOAL_DEBUG("%s: input server name: %s\n server name found in cert: %s", verifyFunction, serverName,
                commonName.data());
    const bool isServerName = serverName != nullptr && strcasecmp(serverName, commonName.data()) == 0;
    // A name cut short by a NUL accepts nobody, and saves nobody from being refused.
    if (isServerName && (result != PLUGIN_SUCCESS || !hasNulInCommonName(subject))) {
        WFOAL_DEBUG("%s: server name verification succeeded", verifyFunction);
        return result;
    }
    WFOAL_ERROR("%s: server name verification failed", verifyFunction);
    promptUser = true;
    return PLUGIN_SUCCESS;
}

}  // namespace

PluginResult CertificateInterface::VerifyServerCertificate(const unsigned char* data, unsigned int length,
                                                           const char* name, bool& promptUser)
{
    const wfoal::ErrorQueueGuard queueGuard;
    WFOAL_DEBUG("CertificateInterface::%s: Called!", __func__);
    PluginResult result = PLUGIN_FAILURE;
    if (isOpenSslWhole()) {
        const X509Ptr certificate(data == nullptr ? nullptr : d2i_X509(nullptr, &data, static_cast<long>(length)));
        if (certificate) {
            result = judge(certificate.get(), name, promptUser);
        } else {
            WFOAL_ERROR("%s: error: invalid server cert", __func__);
        }
    }
    releaseUsedIntermediates();
    return result;
}

PluginResult CertificateInterface::judge(X509* certificate, const char* serverName, bool& promptUser)
{
    if (!verificationCerts) verificationCerts.reset(sk_X509_new_null());
    const X509StorePtr store(X509_STORE_new());
    if (!store) {
        WFOAL_ERROR("%s: Failed to create X509_STORE object.", verifyFunction);
        return PLUGIN_FAILURE;
    }
    const X509StoreCtxPtr context(X509_STORE_CTX_new());
    if (!context) {
        WFOAL_ERROR("%s: Failed to create X509_STORE_CTX object.", verifyFunction);
        return PLUGIN_FAILURE;
    }
    if (!loadTrustedDirectory(store.get())) WFOAL_ERROR("%s: Failed to load trusted certs", verifyFunction);
    if (X509_STORE_CTX_init(context.get(), store.get(), certificate, verificationCerts.get()) != 1) {
        WFOAL_ERROR("%s: Could not initialize X509_STORE_CTX.", verifyFunction);
        return PLUGIN_FAILURE;
    }
    if (wfoal::verifiesForServer(context.get())) return PLUGIN_SUCCESS;
    const int error = X509_STORE_CTX_get_error(context.get());
    PluginResult result = resultOfChain(error, promptUser);
    if (!isWithinValidity(certificate)) {
        promptUser = false;
        return PLUGIN_FAILURE;
    }
    const bool isInstalled = wfoal::isInStore(context.get(), X509_get_subject_name(certificate));
    result = resultOfName(certificate, isInstalled, serverName, result, promptUser);
    if (result == PLUGIN_SUCCESS &&
        !wfoal::isConfirmed({error, isInstalled}, certificate, verificationCerts.get(), trustedDirectory)) {
        WFOAL_ERROR("%s: Server Certificate verification is not reliable", verifyFunction);
        promptUser = false;
        return PLUGIN_FAILURE;
    }
    return result;
}

// Intermediates of one handshake never serve the next. A stack that is empty already stays.
void CertificateInterface::releaseUsedIntermediates()
{
    if (sk_X509_num(verificationCerts.get()) != 0) verificationCerts.reset();
}

bool CertificateInterface::x509StackFromPEMFile(const std::string& path, STACK_OF(X509) * stack)
{
    const wfoal::ErrorQueueGuard queueGuard;
    const BioPtr file(BIO_new_file(path.c_str(), "r"));
    if (!file) {
        WFOAL_ERROR("%s: Could not read file: %s. Please check file permissions.", __func__, path.c_str());
        return false;
    }
    const X509InfoStackPtr items(PEM_X509_INFO_read_bio(file.get(), nullptr, wfoal::noPassword, nullptr));
    if (!items) {
        WFOAL_ERROR("%s: Failed to convert file: %s to X509 certificates.", __func__, path.c_str());
        return false;
    }
    while (sk_X509_INFO_num(items.get()) > 0) {
        const X509InfoPtr item(sk_X509_INFO_shift(items.get()));
        // An item may be a key or a revocation list. A certificate leaves its item for the caller's stack.
        if (item->x509 != nullptr && sk_X509_push(stack, item->x509) > 0) item->x509 = nullptr;
    }
    return true;
}
