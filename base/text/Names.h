// SPDX-License-Identifier: Apache-2.0
//
// The rules for names of interfaces and hosts, for the platform and the tools.
#ifndef WFOAL_NAMES_H
#define WFOAL_NAMES_H

#include <string_view>

#include "result/Result.h"

namespace wfoal {

/// An interface name is 1 to 15 letters, digits, '_', '-' and '.', not "." or "..". The kernel takes more, but '*' and
/// '+' are wildcards of filters, and other characters end up in file names and tools.
Check checkInterfaceName(std::string_view name);

/// A domain name is 1 to 253 characters: labels of 1 to 63 letters, digits, '-' and '_' with dots between them. A label
/// neither begins nor ends with '-'.
Check checkDomainName(std::string_view name);

}  // namespace wfoal

#endif
