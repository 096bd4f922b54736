// SPDX-License-Identifier: Apache-2.0
//
// A server certificate and an intermediate from the wire: two DER texts, the first one's length in front. Nothing is
// trusted here, so nothing may be accepted without asking.
#include <filesystem>

#include "CertificateInterface.h"
#include "FuzzSetup.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    fuzz::setUpOnce();
    static CertificateInterface judge;
    if (size < 2) return 0;
    const std::size_t wanted = static_cast<std::size_t>(data[0]) << 8 | data[1];
    const unsigned char* first = data + 2;
    const std::size_t firstSize = std::min(wanted, size - 2);
    judge.AddVerificationCert(first + firstSize, static_cast<unsigned>(size - 2 - firstSize));
    bool promptUser = false;
    const PluginResult result =
        judge.VerifyServerCertificate(first, static_cast<unsigned>(firstSize), "vpn.example", promptUser);
    if (result == PLUGIN_SUCCESS && !promptUser) std::abort();
    return 0;
}
