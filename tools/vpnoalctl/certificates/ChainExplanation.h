// SPDX-License-Identifier: Apache-2.0
//
// A likely reason for the plug-in's verdict: plain verification of the same chain against the same trusted directory.
// Only an explanation; the verdict is the plug-in's.
#ifndef VPNOALCTL_CHAINEXPLANATION_H
#define VPNOALCTL_CHAINEXPLANATION_H

#include <string>
#include <vector>

#include "certificates/CertificateFile.h"

namespace vpnoalctl {

struct ChainExplanation {
    int error = 0;                          ///< OpenSSL's code; 0 when the chain verifies
    int depth = 0;                          ///< where it failed; 0 is the server's certificate
    std::string reason;                     ///< in OpenSSL's words
    std::vector<CertificateSummary> chain;  ///< as far as it could be built, the server first
};

/// The reason with OpenSSL's code and the depth when the chain does not verify. The verdict also depends on dates,
/// store and name.
std::string reasonOf(const ChainExplanation& explanation);

ChainExplanation explainChain(const Bytes& server, const std::vector<Bytes>& intermediates);

}  // namespace vpnoalctl

#endif
