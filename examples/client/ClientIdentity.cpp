// SPDX-License-Identifier: Apache-2.0
#include "client/ClientIdentity.h"

#include <array>
#include <utility>

#include "CommandError.h"
#include "client/HandleKey.h"

using namespace vpnoalctl;

namespace sampleclient {

namespace {

constexpr char key[] = "gateway.certificate";
constexpr char listHint[] = "'vpnoalctl certs list' shows what there is, 'vpnoalctl certs import' installs more";

HandlePtr choose(std::vector<HandlePtr> handles, const std::string& choice)
{
    if (handles.empty()) throw badInput(key, "there is no client certificate", listHint);
    if (!choice.empty()) {
        try {
            return chooseHandle(std::move(handles), choice);
        } catch (const CommandError& error) {
            throw badInput(key, error.what(), "nothing was changed");
        }
    }
    if (handles.size() > 1) throw badInput(key, "there are several client certificates; say which", listHint);
    return std::move(handles.front());
}

}  // namespace

ClientIdentity::ClientIdentity(KEST_CertPlugin& certificates, const GatewaySettings& gateway)
    : mPassword(keyPassword(gateway))
{
    std::vector<HandlePtr> handles = listHandles(certificates);
    mListed = handles.size();
    mHandle = choose(std::move(handles), gateway.certificate);
    proveKey(gateway);
}

CertificateSummary ClientIdentity::summary() const
{
    return summarize(certificateOf(*mHandle).get());
}

void ClientIdentity::proveKey(const GatewaySettings& gateway) const
{
    constexpr std::array<unsigned char, 36> anyHash{};
    const HandleSigner signer{*mHandle, password()};
    if (!signer.sign(anyHash.data(), anyHash.size()).empty()) return;
    constexpr char why[] = "the certificate's key does not open with this password, or does not belong to it";
    constexpr char hint[] = "-v shows what the plug-in says; nothing was changed";
    if (!gateway.passwordFile.empty()) throw badInput("gateway.passwordFile", why, hint);
    if (!gateway.passwordVariable.empty()) throw badInput("gateway.passwordVariable", why, hint);
    throw badInput(key, "its key cannot be used without a password, or does not belong to it",
                   "give gateway.passwordFile; -v shows what the plug-in says; nothing was changed");
}

}  // namespace sampleclient
