// SPDX-License-Identifier: Apache-2.0
//
// What loading the library does.
#ifndef VKNETCONFIG_LIBRARY_H
#define VKNETCONFIG_LIBRARY_H

namespace vknetconfig {

/// Opens what the first request would have to wait for. Starts no thread: one would still be in the loader's hands when
/// the library is unloaded at once.
void warmUp();

}  // namespace vknetconfig

#endif
