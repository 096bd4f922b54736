// SPDX-License-Identifier: Apache-2.0
//
// The folders in which the plug-in looks for certificates. The tool reads and changes them itself, as the plug-in has
// no operation for it.
#ifndef VPNOALCTL_CERTIFICATEFOLDER_H
#define VPNOALCTL_CERTIFICATEFOLDER_H

#include <string>
#include <vector>

#include "certificates/CertificateFile.h"

namespace vpnoalctl {

constexpr char trustedFolder[] = "/var/ssl/trustedcerts";
constexpr char clientFolder[] = "/var/ssl/certs";
constexpr char keyFolder[] = "/var/ssl/private";

struct StoredCertificate {
    std::string name;  ///< of the file
    X509Ptr certificate;
};

/// The files of a folder that begin with a certificate, by name. A folder that is not there is empty. Throws
/// CommandError when it cannot be listed.
std::vector<StoredCertificate> certificatesIn(const std::string& folder);

/// Installs a certificate that gateways are trusted by, under the hash of its subject. False when it is there already.
/// Throws CommandError; then nothing is changed.
bool installTrusted(X509* certificate);

/// Removes it; false when it is not there. Throws CommandError.
bool removeTrusted(X509* certificate);

/// Removes a client certificate and its key, the key first. Throws CommandError.
void removeClient(X509* certificate);

}  // namespace vpnoalctl

#endif
