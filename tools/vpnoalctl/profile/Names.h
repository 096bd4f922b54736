// SPDX-License-Identifier: Apache-2.0
//
// What a name in a profile may look like. Each function returns an empty text, or what is wrong with the name.
#ifndef VPNOALCTL_NAMES_H
#define VPNOALCTL_NAMES_H

#include <string>

namespace vpnoalctl {

std::string faultOfInterfaceName(const std::string& name);
std::string faultOfDomain(const std::string& domain);

}  // namespace vpnoalctl

#endif
