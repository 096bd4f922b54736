// SPDX-License-Identifier: Apache-2.0
//
// Values of a profile that several keys have. Each function throws JsonError, which names the key, for what is none.
#ifndef VPNOALCTL_VALUES_H
#define VPNOALCTL_VALUES_H

#include <cstdint>
#include <string>

#include "json/StrictJson.h"
#include "profile/Ipv4.h"

namespace vpnoalctl {

/// Refuses the value unless `fault` is empty.
void refuseFault(const wfoal::JsonValue& value, const std::string& fault);

/// Refuses an address that no host can have.
void requireHost(const wfoal::JsonValue& value, Ipv4Address address);
Ipv4Address hostAddressOf(const wfoal::JsonValue& value);
/// No bit behind the prefix is set.
Ipv4Network networkOf(const wfoal::JsonValue& value);
std::uint16_t portOf(const wfoal::JsonValue& value);

}  // namespace vpnoalctl

#endif
