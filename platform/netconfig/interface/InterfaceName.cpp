// SPDX-License-Identifier: Apache-2.0
#include "interface/InterfaceName.h"

#include <net/if.h>

#include "RequestError.h"

namespace vknetconfig {

std::string interfaceNameFault(std::string_view name)
{
    constexpr std::string_view plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.";
    if (name.empty()) return "must not be empty";
    if (name.size() >= IFNAMSIZ) return "is longer than 15 characters: " + excerpt(name);
    const bool isPlain = name.find_first_not_of(plain) == std::string_view::npos;
    return isPlain && name != "." && name != ".." ? std::string() : "is no interface name: " + excerpt(name);
}

}  // namespace vknetconfig
