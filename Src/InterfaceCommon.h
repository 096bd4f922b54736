// SPDX-License-Identifier: Apache-2.0
//
// What the four service objects answer alike.
#ifndef WFOAL_INTERFACECOMMON_H
#define WFOAL_INTERFACECOMMON_H

#include <cstring>

namespace wfoal {

/// Exact comparison; a null name is no interface's.
inline bool isInterfaceName(const char* name, const char* identifier)
{
    return name != nullptr && std::strcmp(name, identifier) == 0;
}

}  // namespace wfoal

#endif
