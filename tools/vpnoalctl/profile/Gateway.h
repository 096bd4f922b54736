// SPDX-License-Identifier: Apache-2.0
//
// The "gateway" of a profile: where the tunnel's other end is reached, and who the user is there.
#ifndef VPNOALCTL_GATEWAY_H
#define VPNOALCTL_GATEWAY_H

#include <cstdint>
#include <optional>
#include <string>

#include "json/StrictJson.h"
#include "net/Ipv4.h"

namespace vpnoalctl {

struct GatewaySettings {
    wfoal::Ipv4Address address;
    std::uint16_t port = 443;
    std::string serverName;        ///< what the user calls the gateway, for its certificate
    std::string certificate;       ///< which client certificate, as chooseHandle() takes it; empty: the only one
    std::string passwordFile;      ///< its first line opens an encrypted key
    std::string passwordVariable;  ///< an environment variable that does; not both
};

/// Reads the object strictly. Throws JsonError.
GatewaySettings readGateway(const wfoal::JsonValue& value);

/// The password that opens the client certificate's key; none when the profile names none. Throws CommandError that
/// names the key of the profile.
std::optional<std::string> keyPassword(const GatewaySettings& gateway);

}  // namespace vpnoalctl

#endif
