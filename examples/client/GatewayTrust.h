// SPDX-License-Identifier: Apache-2.0
//
// Whether a gateway is trusted: the plug-in judges its certificate, and where it says "ask", the user decides.
#ifndef SAMPLECLIENT_GATEWAYTRUST_H
#define SAMPLECLIENT_GATEWAYTRUST_H

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "CommandError.h"
#include "certificates/ServerVerdict.h"
#include "client/EventLog.h"

namespace sampleclient {

using vpnoalctl::ExitRefused;

enum class TrustStep { Proceed, AskUser, Undecided, Refuse };

/// What is known when a verdict has been given.
struct TrustCircumstances {
    bool acceptedBefore = false;  ///< the user accepted this very certificate in this connection
    bool acceptAsked = false;     ///< the user said beforehand that a question is answered with yes
    bool canAsk = false;          ///< there is a user to ask
};

TrustStep nextTrustStep(vpnoalctl::ServerVerdict verdict, const TrustCircumstances& circumstances);

class GatewayTrust {
public:
    /// Asks a person and returns the answer; null when there is nobody to ask.
    using Question = std::function<bool(const std::string& text)>;

    GatewayTrust(KEST_CertPlugin& certificates, std::string serverName, bool acceptAsked, Question ask, EventLog& log);

    /// Returns when the gateway is trusted. Throws CommandError with ExitRefused when plug-in or user refuse, with
    /// ExitAskUser when nobody could be asked; and what the question throws.
    void judge(const vpnoalctl::Bytes& server, const std::vector<vpnoalctl::Bytes>& intermediates);

private:
    KEST_CertPlugin& mCertificates;
    std::string mServerName;
    bool mAcceptAsked;
    Question mAsk;
    EventLog& mLog;
    std::set<std::string> mAccepted;  // fingerprints
};

}  // namespace sampleclient

#endif
