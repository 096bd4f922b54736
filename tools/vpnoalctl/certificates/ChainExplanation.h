// SPDX-License-Identifier: Apache-2.0
//
// Why the plug-in may have judged as it did: plain verification of the same chain against the same trusted directory.
// For people only; the verdict is the plug-in's.
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

/// The reason with OpenSSL's code and the depth, where the chain does not verify. It is not the whole story of a
/// verdict: dates, store and name count then.
std::string reasonOf(const ChainExplanation& explanation);

ChainExplanation explainChain(const Bytes& server, const std::vector<Bytes>& intermediates);

}  // namespace vpnoalctl

#endif
