// SPDX-License-Identifier: Apache-2.0
//
// A route for machines, as "ip -json route" prints it: {"dst":"10.0.0.0/8","gateway":"10.8.0.1","dev":"norvatun0"}
#ifndef VPNOALCTL_ROUTEOBJECT_H
#define VPNOALCTL_ROUTEOBJECT_H

#include <cstdint>
#include <string>

#include "handles/Json.h"
#include "net/Ipv4.h"

namespace vpnoalctl {

/// "default", "10.0.0.0/8", or the address of a host.
std::string routeTarget(const wfoal::Ipv4Network& network);

/// Without a gateway when that is 0.0.0.0, and without a metric when that is 0. An empty `device` is left out.
JsonPtr routeObject(const wfoal::Ipv4Network& target, wfoal::Ipv4Address gateway, const std::string& device,
                    std::uint32_t metric);

}  // namespace vpnoalctl

#endif
