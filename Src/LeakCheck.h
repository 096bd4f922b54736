// SPDX-License-Identifier: Apache-2.0
//
// Memory that is kept on purpose: the leak checker, in builds that have one, does not report it.
#ifndef WFOAL_LEAKCHECK_H
#define WFOAL_LEAKCHECK_H

#if defined(__has_feature)  // clang
#if __has_feature(address_sanitizer)
#define WFOAL_LEAK_CHECK
#endif
#elif defined(__SANITIZE_ADDRESS__)  // GCC
#define WFOAL_LEAK_CHECK
#endif
#ifdef WFOAL_LEAK_CHECK
#include <sanitizer/lsan_interface.h>
#endif

namespace wfoal {

/// Exempts the block at `object` and everything reachable from it. Null is ignored.
inline void markIntentionalLeak([[maybe_unused]] const void* object)
{
#ifdef WFOAL_LEAK_CHECK
    if (object != nullptr) __lsan_ignore_object(object);
#endif
}

}  // namespace wfoal

#endif
