// SPDX-License-Identifier: Apache-2.0
//
// Values of a profile that several keys have. Each function throws JsonError, which names the key, for what is none.
#ifndef VPNOALCTL_VALUES_H
#define VPNOALCTL_VALUES_H

#include <cstdint>
#include <utility>

#include "json/StrictJson.h"
#include "net/Ipv4.h"
#include "result/Result.h"

namespace vpnoalctl {

/// What the result holds. Refuses the JSON value when it holds a fault.
template <class Value>
Value require(const wfoal::JsonValue& value, wfoal::Result<Value> result)
{
    if (!result) value.refuse(result.reason());
    return std::move(*result);
}

/// Refuses an address that no host can have.
void requireHost(const wfoal::JsonValue& value, wfoal::Ipv4Address address);
wfoal::Ipv4Address hostAddressOf(const wfoal::JsonValue& value);
/// No bit behind the prefix is set.
wfoal::Ipv4Network networkOf(const wfoal::JsonValue& value);
std::uint16_t portOf(const wfoal::JsonValue& value);

}  // namespace vpnoalctl

#endif
