// SPDX-License-Identifier: Apache-2.0
//
// Where the tunnel's other end is reached, and who the user is there: a JSON file of its own beside the profile.
#ifndef SAMPLECLIENT_GATEWAY_H
#define SAMPLECLIENT_GATEWAY_H

#include <cstdint>
#include <optional>
#include <string>

#include "net/Ipv4.h"

namespace sampleclient {

struct GatewaySettings {
    wfoal::Ipv4Address address;
    std::uint16_t port = 443;
    std::string serverName;        ///< what the user calls the gateway, for its certificate
    std::string certificate;       ///< which client certificate, as chooseHandle() takes it; empty: the only one
    std::string passwordFile;      ///< its first line opens an encrypted key
    std::string passwordVariable;  ///< an environment variable that does; not both
};

/// Reads the text strictly. Throws CommandError with ExitUsage; `file` is the name it gives in the error.
GatewaySettings parseGateway(const std::string& text, const std::string& file);
GatewaySettings loadGateway(const std::string& file);

/// The password that opens the client certificate's key; none when no key names one. Throws CommandError that names the
/// key.
std::optional<std::string> keyPassword(const GatewaySettings& gateway);

}  // namespace sampleclient

#endif
