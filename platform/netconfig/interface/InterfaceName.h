// SPDX-License-Identifier: Apache-2.0
//
// Names of interfaces in requests.
#ifndef VKNETCONFIG_INTERFACENAME_H
#define VKNETCONFIG_INTERFACENAME_H

#include <string>
#include <string_view>

namespace vknetconfig {

/// Why the text is no interface name; empty when it is one: 1 to 15 letters, digits, '_', '-' and '.', not "." or "..".
/// The kernel takes more, but '*' and '+' are wildcards of filters, and others end up in file names and tools.
std::string interfaceNameFault(std::string_view name);

}  // namespace vknetconfig

#endif
