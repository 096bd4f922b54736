// SPDX-License-Identifier: Apache-2.0
//
// The type that ioctl() has for its number: C libraries differ.
#ifndef WFOAL_HANDLES_IOCTL_H
#define WFOAL_HANDLES_IOCTL_H

#include <sys/ioctl.h>

namespace wfoal {

template <typename Number>
Number numberTypeOf(int (*function)(int, Number, ...));

using IoctlNumber = decltype(numberTypeOf(&ioctl));

}  // namespace wfoal

#endif
