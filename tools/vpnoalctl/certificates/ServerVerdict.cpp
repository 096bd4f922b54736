// SPDX-License-Identifier: Apache-2.0
#include "certificates/ServerVerdict.h"

namespace vpnoalctl {

const char* wordFor(ServerVerdict verdict)
{
    switch (verdict) {
    case ServerVerdict::Accept: return "accept";
    case ServerVerdict::Ask: return "ask";
    case ServerVerdict::Refuse: break;
    }
    return "refuse";
}

ServerVerdict judgeServer(KEST_CertPlugin& certificates, const Bytes& server, const std::vector<Bytes>& intermediates,
                          const std::string& name)
{
    for (const Bytes& der : intermediates) {
        certificates.AddVerificationCert(der.data(), static_cast<unsigned>(der.size()));
    }
    bool promptUser = false;
    const PluginResult result = certificates.VerifyServerCertificate(
        server.data(), static_cast<unsigned>(server.size()), name.empty() ? nullptr : name.c_str(), promptUser);
    if (result != PLUGIN_SUCCESS) return ServerVerdict::Refuse;
    return promptUser ? ServerVerdict::Ask : ServerVerdict::Accept;
}

}  // namespace vpnoalctl
