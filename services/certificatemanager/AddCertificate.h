// SPDX-License-Identifier: Apache-2.0
//
// The method "addcertificate" with its request and reply as JSON texts. Knows nothing of the bus.
#ifndef CERTIFICATEMANAGER_ADDCERTIFICATE_H
#define CERTIFICATEMANAGER_ADDCERTIFICATE_H

#include <string>

#include "CertificateStore.h"

namespace certificatemanager {

/// Installs what `request` asks for: an object of "certificateFilename" and, when the bundle has one, "passphrase".
/// Returns {"returnValue": true}, or {"returnValue": false, "errorCode": ..., "errorText": ...}.
std::string addCertificate(const CertificateStore& store, const char* request);

/// The reply for `result`.
std::string replyText(const InstallResult& result);

}  // namespace certificatemanager

#endif
