// SPDX-License-Identifier: Apache-2.0
//
// What an administrator sets for the host platform, in /etc/vpnwfoal/platform.conf: lines "KEY = VALUE", comments from
// '#' to the end of a line. Without the file every setting has its default.
//
//     ipv6-guard = on                # or off
//     strict     = off               # or on
//     bypass     = 192.0.2.0/24, 2001:db8::/32
//
// "bypass" may be given more than once; every list adds to it.
#ifndef WFOAL_PLATFORMSETTINGS_H
#define WFOAL_PLATFORMSETTINGS_H

#include <string_view>
#include <vector>

#include "net/Ipv4.h"
#include "net/Ipv6.h"
#include "result/Result.h"

namespace wfoal {

inline constexpr char platformSettingsPath[] = "/etc/vpnwfoal/platform.conf";

/// Destinations that may be reached beside the tunnel. Networks without host bits.
struct BypassNetworks {
    std::vector<Ipv4Network> ipv4;
    std::vector<Ipv6Network> ipv6;
};

struct PlatformSettings {
    bool hasIpv6Guard = true;
    bool isStrict = false;
    BypassNetworks bypass;
};

/// Reads a list of networks of both families, with commas or blanks between them, and adds them.
Check addNetworks(std::string_view list, BypassNetworks& networks);

/// Reads the text of the file. The reason names the line: "line 3: ...".
Result<PlatformSettings> parsePlatformSettings(std::string_view text);

/// Reads the file. A file that cannot be read, or that is wrong, is a fault, never the default.
Result<PlatformSettings> readPlatformSettings(const char* path = platformSettingsPath);

}  // namespace wfoal

#endif
