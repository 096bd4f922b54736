// SPDX-License-Identifier: Apache-2.0
//
// Checks of a chain: whether it verifies for a server, and whether a subject is installed. OpenSSL does not distinguish
// a fault of its own (no memory, no descriptor) from a missing certificate, and may then report a milder error. So
// every chain that is not refused is checked a second time.
#ifndef WFOAL_CHAINCHECK_H
#define WFOAL_CHAINCHECK_H

#include "handles/OpenSsl.h"

namespace wfoal {

/// Without the purpose a certificate of any use would pass, so a purpose that cannot be set is a failed chain.
bool verifiesForServer(X509_STORE_CTX* context);

bool isInStore(X509_STORE_CTX* context, const X509_NAME* subject);

/// How a chain failed.
struct ChainFindings {
    int error;                // as X509_STORE_CTX_get_error() gives it
    bool isSubjectInstalled;  // the server's

    bool operator==(const ChainFindings& other) const
    {
        return error == other.error && isSubjectInstalled == other.isSubjectInstalled;
    }
};

/// Checks the chain again, with copies of its certificates and a fresh look into the directory. True when both checks
/// have the same findings. A fault that struck the first check only changes the findings; one that lasts fails this
/// check.
bool isConfirmed(const ChainFindings& findings, X509* server, const STACK_OF(X509) * untrusted,
                 const char* trustedDirectory);

}  // namespace wfoal

#endif
