// SPDX-License-Identifier: Apache-2.0
#include "client/GatewayTrust.h"

#include <fmt/format.h>

#include <utility>

#include "CommandError.h"
#include "certificates/ChainExplanation.h"

using namespace vpnoalctl;

namespace sampleclient {

TrustStep nextTrustStep(ServerVerdict verdict, const TrustCircumstances& circumstances)
{
    if (verdict == ServerVerdict::Refuse) return TrustStep::Refuse;
    if (verdict == ServerVerdict::Accept) return TrustStep::Proceed;
    if (circumstances.acceptedBefore || circumstances.acceptAsked) return TrustStep::Proceed;
    return circumstances.canAsk ? TrustStep::AskUser : TrustStep::Undecided;
}

GatewayTrust::GatewayTrust(KEST_CertPlugin& certificates, std::string serverName, bool acceptAsked, Question ask,
                           EventLog& log)
    : mCertificates(certificates),
      mServerName(std::move(serverName)),
      mAcceptAsked(acceptAsked),
      mAsk(std::move(ask)),
      mLog(log)
{
}

void GatewayTrust::judge(const Bytes& server, const std::vector<Bytes>& intermediates)
{
    const ServerVerdict verdict = judgeServer(mCertificates, server, intermediates, mServerName);
    const std::string reason = reasonOf(explainChain(server, intermediates));
    const CertificateSummary shown = summarize(parseCertificate(server, "the gateway's certificate").get());
    mLog.add("verdict", fmt::format("{}: {}: {}", wordFor(verdict), shown.subject, reason),
             {{"verdict", wordFor(verdict)},
              {"subject", shown.subject},
              {"reason", reason},
              {"fingerprint", shown.fingerprint}},
             verdict == ServerVerdict::Accept ? Style::Plain : Style::Warning);
    const TrustCircumstances circumstances{mAccepted.count(shown.fingerprint) != 0, mAcceptAsked, mAsk != nullptr};
    bool refusedByUser = false;
    switch (nextTrustStep(verdict, circumstances)) {
    case TrustStep::Proceed: return;
    case TrustStep::AskUser:
        if (mAsk(fmt::format("The gateway {} cannot be verified: {}\n  certificate  {}\n  valid        {} to {}\n"
                             "  SHA-256      {}\nTrust it for this connection? [y/N] ",
                             mServerName, reason, shown.subject, shown.notBefore, shown.notAfter, shown.fingerprint))) {
            mAccepted.insert(shown.fingerprint);
            mLog.add("answer", "trusted by the user", {{"answer", "yes"}});
            return;
        }
        mLog.add("answer", "not trusted by the user", {{"answer", "no"}});
        refusedByUser = true;
        break;
    case TrustStep::Undecided:
        throw CommandError("gateway.serverName", "the gateway's certificate cannot be verified: " + reason,
                           "nobody could be asked; look at it, then connect with --accept-prompt to trust it",
                           ExitAskUser);
    case TrustStep::Refuse: break;
    }
    throw CommandError("gateway.serverName",
                       refusedByUser ? "you did not trust the gateway's certificate"
                                     : "the plug-in refuses the gateway's certificate: " + reason,
                       "'vpnoalctl verify' explains a certificate", ExitRefused);
}

}  // namespace sampleclient
