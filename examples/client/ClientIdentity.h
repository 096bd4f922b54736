// SPDX-License-Identifier: Apache-2.0
//
// Who the user is for the gateway: one of the plug-in's client certificates, and what opens its key.
#ifndef SAMPLECLIENT_CLIENTIDENTITY_H
#define SAMPLECLIENT_CLIENTIDENTITY_H

#include <optional>
#include <string>

#include "certificates/ClientHandles.h"
#include "client/Gateway.h"

namespace sampleclient {

class ClientIdentity {
public:
    /// Lists the certificates, takes the one that the profile names, and has it sign once, so that a key that cannot be
    /// used is noticed before anybody is talked to. Throws CommandError that names the key of the profile.
    ClientIdentity(KEST_CertPlugin& certificates, const GatewaySettings& gateway);

    ClientCertHandle& handle() const { return *mHandle; }
    /// Null when the key is not encrypted.
    const char* password() const { return mPassword ? mPassword->c_str() : nullptr; }
    vpnoalctl::CertificateSummary summary() const;
    /// How many certificates there were to choose from.
    std::size_t listed() const { return mListed; }

private:
    void proveKey(const GatewaySettings& gateway) const;

    std::optional<std::string> mPassword;
    vpnoalctl::HandlePtr mHandle;
    std::size_t mListed = 0;
};

}  // namespace sampleclient

#endif
