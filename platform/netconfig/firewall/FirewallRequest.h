// SPDX-License-Identifier: Apache-2.0
//
// A request for the packet filter as plain, checked values.
#ifndef VKNETCONFIG_FIREWALLREQUEST_H
#define VKNETCONFIG_FIREWALLREQUEST_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "net/Ipv4.h"

namespace vknetconfig {

enum class RuleProtocol : std::uint8_t { Any, Icmp, Tcp, Udp };
enum class RuleDirection : std::uint8_t { Any, In, Out };
enum class RuleVerdict : std::uint8_t { Accept, Drop };

struct FirewallRule {
    std::optional<wfoal::Ipv4Network> source;  // networks without host bits
    std::optional<wfoal::Ipv4Network> destination;
    RuleProtocol protocol = RuleProtocol::Any;
    RuleDirection direction = RuleDirection::Any;
    std::string interfaceName;          // empty exactly when the direction is Any
    std::uint16_t sourcePort = 0;       // 0: any port
    std::uint16_t destinationPort = 0;  // with protocol Any, a port means TCP and UDP
    RuleVerdict verdict = RuleVerdict::Accept;
};

struct FirewallRequest {
    std::string label;
    std::string chain;
    bool remove = false;
    std::vector<FirewallRule> rules;
};

bool operator==(const FirewallRule& left, const FirewallRule& right);
bool operator==(const FirewallRequest& left, const FirewallRequest& right);

/// Reads the JSON text of VkFirewallFullCtrl(). Throws a RequestError that names the key at fault. Bits of an address
/// outside its mask are dropped, as other packet filters do: 10.0.0.5/255.0.0.0 is 10.0.0.0/8.
FirewallRequest parseFirewallRequest(const char* json);

}  // namespace vknetconfig

#endif
