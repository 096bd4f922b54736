// SPDX-License-Identifier: Apache-2.0
//
// Values that several keys of a profile share. Each function throws a JsonError with the key when the value is invalid.
#ifndef VPNOALCTL_VALUES_H
#define VPNOALCTL_VALUES_H

#include <cstdint>
#include <utility>

#include "json/StrictJson.h"
#include "net/Ipv4.h"
#include "result/Result.h"

namespace vpnoalctl {

/// The value in the result. Refuses the JSON value when the result is a fault.
template <class Value>
Value require(const wfoal::JsonValue& value, wfoal::Result<Value> result)
{
    if (!result) value.refuse(result.reason());
    return std::move(*result);
}

/// Refuses an address that no host can have.
void requireHost(const wfoal::JsonValue& value, wfoal::Ipv4Address address);
wfoal::Ipv4Address hostAddressOf(const wfoal::JsonValue& value);
/// Refuses a network with bits set after its prefix.
wfoal::Ipv4Network networkOf(const wfoal::JsonValue& value);
std::uint16_t portOf(const wfoal::JsonValue& value);

}  // namespace vpnoalctl

#endif
