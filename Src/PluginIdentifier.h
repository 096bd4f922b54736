// SPDX-License-Identifier: Apache-2.0
//
// How the four service objects compare the interface that they are asked for with their own.
#ifndef WFOAL_PLUGINIDENTIFIER_H
#define WFOAL_PLUGINIDENTIFIER_H

#include <cstring>

namespace wfoal {

/// Exact comparison; false for a null name.
inline bool isInterfaceName(const char* name, const char* identifier)
{
    return name != nullptr && std::strcmp(name, identifier) == 0;
}

}  // namespace wfoal

#endif
