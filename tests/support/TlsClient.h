// SPDX-License-Identifier: Apache-2.0
//
// A sample of how an agent makes a TLS 1.0 or 1.1 handshake with a client certificate of the plug-in: OpenSSL does the
// protocol, the server's certificate goes to the certificate interface, and the hash that proves possession of the key
// is signed by the handle, so that the key never leaves the plug-in.
#ifndef WFOAL_TEST_TLSCLIENT_H
#define WFOAL_TEST_TLSCLIENT_H

#include <string>

#include "kest/CertPlugin.h"

namespace testsupport {

struct TlsOptions {
    int protocol = 0;                        // TLS1_VERSION or TLS1_1_VERSION
    int port = 0;                            // on 127.0.0.1
    const char* serverName = "vpn.example";  // what the user calls the server
    const char* keyPassword = nullptr;
};

struct TlsResult {
    bool connected = false;
    bool asked = false;  // the server was accepted, but the user would be asked
    std::string echoed;  // what came back for the line that was sent
    std::string error;
};

/// Connects, shows the handle's certificate, sends `line` and reads one line back.
TlsResult talkOverTls(KEST_CertPlugin& certificates, ClientCertHandle& handle, const TlsOptions& options,
                      const std::string& line);

}  // namespace testsupport

#endif
