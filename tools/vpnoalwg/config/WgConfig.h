// SPDX-License-Identifier: Apache-2.0
//
// A WireGuard configuration in the format of wg-quick(8), as plain values. The reader makes no system call. It checks
// every value, because some become addresses and routes, and it never repeats a key or a command in an error.
#ifndef VPNOALWG_WGCONFIG_H
#define VPNOALWG_WGCONFIG_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "net/Ipv4.h"
#include "net/Ipv6.h"
#include "result/Result.h"

namespace vpnoalwg {

/// No configuration file is larger: bytes.
inline constexpr std::size_t largestConfig = std::size_t{1} << 20;

/// Where a peer is reached.
struct WgEndpoint {
    std::string host;  ///< an address of either family, without brackets, or a name
    std::uint16_t port = 0;
};

/// A list of addresses or networks, by family.
struct MixedNetworks {
    std::vector<wfoal::Ipv4Network> ipv4;
    std::vector<wfoal::Ipv6Network> ipv6;
};

struct WgPeer {
    std::string publicKey;
    std::string presharedKey;  ///< empty: none
    MixedNetworks allowed;     ///< without host bits
    std::optional<WgEndpoint> endpoint;
    std::string keepalive;  ///< as it is written; empty: none
};

/// Which routing table the routes go into.
struct WgTable {
    enum class Kind { Auto, Off, Number };
    Kind kind = Kind::Auto;
    std::uint32_t number = 0;
};

struct WgConfig {
    std::string privateKey;  ///< empty: a command of PostUp sets it
    std::string listenPort;  ///< this and the next as they are written; empty: none
    std::string fwMark;
    MixedNetworks addresses;  ///< with host bits
    MixedNetworks dnsServers;
    std::vector<std::string> dnsDomains;
    std::optional<unsigned int> mtu;  ///< bytes
    WgTable table;
    bool saveConfig = false;
    std::vector<std::string> preUp, postUp, preDown, postDown;  ///< "%i" is not replaced yet
    std::vector<WgPeer> peers;
};

/// Reads the text of a file. The reason names the line: "line 3: MTU: ...".
wfoal::Result<WgConfig> parseWgConfig(std::string_view text);

}  // namespace vpnoalwg

#endif
