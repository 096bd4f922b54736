// SPDX-License-Identifier: Apache-2.0
//
// Certificates as files and as text for people.
#ifndef VPNOALCTL_CERTIFICATEFILE_H
#define VPNOALCTL_CERTIFICATEFILE_H

#include <string>
#include <vector>

#include "handles/OpenSsl.h"

namespace vpnoalctl {

using Bytes = std::vector<unsigned char>;

/// The whole file, at most `limit` bytes; throws CommandError that names it.
Bytes readWholeFile(const std::string& path, std::size_t limit);

/// The file's first line. (Every user could read a password on the command line.) Throws CommandError.
std::string readPasswordFile(const std::string& path);

/// The first certificate of a PEM or DER file, as DER. Throws CommandError.
Bytes loadCertificate(const std::string& path);

/// The certificate in DER form.
Bytes derOf(X509* certificate);

/// Throws CommandError when the bytes are no certificate; `what` names them.
X509Ptr parseCertificate(const Bytes& der, const std::string& what);

/// Lower-case hex.
std::string toHex(const unsigned char* bytes, std::size_t length);

/// What is shown of a certificate.
struct CertificateSummary {
    std::string subject;  ///< RFC 2253
    std::string issuer;
    std::string notBefore;  ///< as OpenSSL prints it, in GMT
    std::string notAfter;
    std::string fingerprint;  ///< SHA-256 in hex
};
CertificateSummary summarize(X509* certificate);

}  // namespace vpnoalctl

#endif
