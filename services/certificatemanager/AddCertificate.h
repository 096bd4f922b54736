// SPDX-License-Identifier: Apache-2.0
//
// The service's one method on JSON texts: what a request says, and how a result is told. Knows nothing of the bus.
#ifndef CERTIFICATEMANAGER_ADDCERTIFICATE_H
#define CERTIFICATEMANAGER_ADDCERTIFICATE_H

#include <string>

#include "CertificateStore.h"

namespace certificatemanager {

/// Installs what `request` asks for: an object of "certificateFilename" and, when the bundle has one, "passphrase".
/// Returns {"returnValue": true}, or {"returnValue": false, "errorCode": ..., "errorText": ...}.
std::string addCertificate(const CertificateStore& store, const char* request);

/// The answer that tells of `result`.
std::string replyText(const InstallResult& result);

}  // namespace certificatemanager

#endif
