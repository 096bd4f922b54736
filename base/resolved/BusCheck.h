// SPDX-License-Identifier: Apache-2.0
//
// Failures of sd-bus functions as the client of systemd-resolved reports them.
#ifndef WFOAL_BUSCHECK_H
#define WFOAL_BUSCHECK_H

#include <cstring>
#include <string>

#include "json/JsonError.h"

namespace wfoal {

/// Throws a JsonError with the key "ipv4.dns"; `result` is a negative error number.
[[noreturn]] inline void failOnBus(const std::string& what, int result)
{
    throw JsonError("ipv4.dns", what + ": " + std::strerror(-result));
}

/// Does so where a function of sd-bus has failed.
inline void checkBus(int result, const char* what)
{
    if (result < 0) failOnBus(what, result);
}

}  // namespace wfoal

#endif
