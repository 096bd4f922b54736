// SPDX-License-Identifier: Apache-2.0
#include "certificates/ClientHandles.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>

#include "CommandError.h"

namespace vpnoalctl {

namespace {

constexpr char certificateFolder[] = "/var/ssl/certs/";
constexpr char listHint[] = "'vpnoalctl certs list' shows what there is";
constexpr std::size_t shortestFingerprint = 4;

std::string lowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool isNumber(const std::string& text)
{
    return !text.empty() && text.size() < 6 && text.find_first_not_of("0123456789") == std::string::npos;
}

bool beginsWith(const std::string& text, const std::string& beginning)
{
    return text.compare(0, beginning.size(), beginning) == 0;
}

std::string commonNameOf(X509* certificate)
{
    constexpr int longest = 256;
    std::string name(longest, '\0');
    const int length =
        X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, name.data(), longest);
    name.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return name;
}

// The one that fits; null when none does. Throws when several do.
template <class Fits>
HandlePtr takeOnly(std::vector<HandlePtr>& handles, Fits fits, const char* several, const std::string& choice)
{
    HandlePtr* found = nullptr;
    for (HandlePtr& handle : handles) {
        if (!fits(handle)) continue;
        if (found != nullptr) throw badInput(choice, several, listHint);
        found = &handle;
    }
    return found != nullptr ? std::move(*found) : HandlePtr();
}

}  // namespace

std::vector<HandlePtr> listHandles(KEST_CertPlugin& certificates)
{
    // The first import makes the folder. Without it the plug-in reports an error; here it means that there is no
    // certificate.
    if (access(certificateFolder, F_OK) != 0 && errno == ENOENT) return {};
    unsigned int count = 0;
    if (certificates.EnumerateClientCerts(count, nullptr) != PLUGIN_SUCCESS) {
        throw CommandError("certs", "the client certificates cannot be listed",
                           "see whether /var/ssl/certs/ is a folder and readable; -v shows the log");
    }
    std::vector<ClientCertHandle*> raw(count);
    if (count > 0 && certificates.EnumerateClientCerts(count, raw.data()) != PLUGIN_SUCCESS) {
        throw CommandError("certs", "the client certificates changed while they were listed", "run it again");
    }
    std::vector<HandlePtr> handles;
    for (unsigned int i = 0; i < count; ++i)
        handles.emplace_back(raw[i], HandleDisposer{&certificates});
    return handles;
}

X509Ptr certificateOf(ClientCertHandle& handle)
{
    unsigned int length = 0;
    unsigned char* data = nullptr;
    handle.GetCertDer(length, data);
    return parseCertificate(Bytes(data, data + length), "a listed certificate");
}

Bytes HandleSigner::sign(const unsigned char* hash, unsigned int length) const
{
    const X509Ptr certificate = certificateOf(handle);
    const int size = EVP_PKEY_get_size(X509_get0_pubkey(certificate.get()));
    if (size <= 0) return {};
    Bytes signature(static_cast<std::size_t>(size));
    unsigned char* output = signature.data();
    unsigned int written = 0;
    if (handle.SignSSL(hash, length, output, written, password) != PLUGIN_SUCCESS || written > signature.size())
        return {};
    signature.resize(written);
    return signature;
}

HandlePtr chooseHandle(std::vector<HandlePtr> handles, const std::string& choice)
{
    const auto hasName = [&choice](const HandlePtr& handle) {
        return !choice.empty() && commonNameOf(certificateOf(*handle).get()) == choice;
    };
    if (HandlePtr named = takeOnly(handles, hasName, "several certificates have this name", choice)) return named;
    if (isNumber(choice)) {
        const std::size_t number = std::stoul(choice);
        if (number >= 1 && number <= handles.size()) return std::move(handles[number - 1]);
    }
    const std::string beginning = lowerCase(choice);
    if (beginning.size() < shortestFingerprint) {
        throw badInput(choice, "no certificate has this name or number", listHint);
    }
    const auto beginsSo = [&beginning](const HandlePtr& handle) {
        return beginsWith(summarize(certificateOf(*handle).get()).fingerprint, beginning);
    };
    HandlePtr found = takeOnly(handles, beginsSo, "several certificates have a fingerprint that begins so", choice);
    if (!found) throw badInput(choice, "no certificate has this name, number or fingerprint", listHint);
    return found;
}

}  // namespace vpnoalctl
