// SPDX-License-Identifier: Apache-2.0
//
// The plug-in's verdict on a server's certificate.
#ifndef VPNOALCTL_SERVERVERDICT_H
#define VPNOALCTL_SERVERVERDICT_H

#include <string>
#include <vector>

#include "certificates/CertificateFile.h"
#include "kest/CertPlugin.h"

namespace vpnoalctl {

enum class ServerVerdict { Accept, Ask, Refuse };

/// "accept", "ask" or "refuse".
const char* wordFor(ServerVerdict verdict);

/// Certificates in DER form. `name` is the server name that the user gave; empty when there is none.
ServerVerdict judgeServer(KEST_CertPlugin& certificates, const Bytes& server, const std::vector<Bytes>& intermediates,
                          const std::string& name);

}  // namespace vpnoalctl

#endif
