// SPDX-License-Identifier: Apache-2.0
#include "certificates/ClientHandles.h"

#include <algorithm>
#include <cctype>

#include "CommandError.h"

namespace vpnoalctl {

namespace {

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

}  // namespace

std::vector<HandlePtr> listHandles(KEST_CertPlugin& certificates)
{
    unsigned int count = 0;
    if (certificates.EnumerateClientCerts(count, nullptr) != PLUGIN_SUCCESS) {
        throw CommandError("certs", "the client certificates cannot be listed",
                           "see whether /var/ssl/certs/ exists and is readable; -v shows the log");
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

HandlePtr chooseHandle(std::vector<HandlePtr> handles, const std::string& choice)
{
    if (isNumber(choice)) {
        const std::size_t number = std::stoul(choice);
        if (number >= 1 && number <= handles.size()) return std::move(handles[number - 1]);
    }
    const std::string beginning = lowerCase(choice);
    if (beginning.size() < shortestFingerprint) throw badInput(choice, "no certificate has this number", listHint);
    HandlePtr found;
    for (HandlePtr& handle : handles) {
        if (!beginsWith(summarize(certificateOf(*handle).get()).fingerprint, beginning)) continue;
        if (found) throw badInput(choice, "several certificates have a fingerprint that begins so", listHint);
        found = std::move(handle);
    }
    if (!found) throw badInput(choice, "no certificate has this number or fingerprint", listHint);
    return found;
}

}  // namespace vpnoalctl
